#!/bin/sh
# Makes the loopback tests' private CA and the server certificates it signed, into this
# directory. They are checked in, so that the tests need no openssl at run time; run this again
# only to replace them (the CA and the good certificates last a hundred years).
#   server          localhost and 127.0.0.1
#   localhost-only  localhost alone, so that a connection to 127.0.0.1 sees the wrong name
#   expired         localhost and 127.0.0.1, valid for one day in 2020
set -eu
cd "$(dirname "$0")"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
key() { openssl genpkey -algorithm EC -pkeyopt ec_paramgen_curve:prime256v1 -out "$1"; }

key ca.key
openssl req -x509 -key ca.key -out ca.pem -days 36500 -subj /CN=Velmorand-Test-CA \
  -addext basicConstraints=critical,CA:TRUE -addext keyUsage=critical,keyCertSign,cRLSign

# `openssl ca` is the one command that takes explicit dates.
touch "$work/index"
echo 01 > "$work/serial"
cat > "$work/ca.cnf" <<CNF
[ca]
default_ca=t
[t]
database=$work/index
new_certs_dir=$work
serial=$work/serial
default_md=sha256
policy=p
unique_subject=no
[p]
commonName=supplied
CNF
issue() {  # name, subjectAltName, start, end
  key "$1.key"
  openssl req -new -key "$1.key" -out "$work/$1.csr" -subj /CN=localhost
  printf 'subjectAltName=%s\nbasicConstraints=CA:FALSE\nkeyUsage=digitalSignature\nextendedKeyUsage=serverAuth\n' \
    "$2" > "$work/$1.ext"
  openssl ca -batch -notext -config "$work/ca.cnf" -cert ca.pem -keyfile ca.key \
    -in "$work/$1.csr" -out "$1.pem" -extfile "$work/$1.ext" -startdate "$3" -enddate "$4"
}
issue server DNS:localhost,IP:127.0.0.1 20250101000000Z 21250101000000Z
issue localhost-only DNS:localhost 20250101000000Z 21250101000000Z
issue expired DNS:localhost,IP:127.0.0.1 20200101000000Z 20200102000000Z
rm ca.key
