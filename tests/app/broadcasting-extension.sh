#!/bin/sh
# Stands in for the upload extension: records its arguments, then broadcasts as the real one is
# seen from outside (holding the lock, recording its id a moment later, saying it is live with one
# viewer) until asked to stop.
# Usage: broadcasting-extension.sh RECORD CONTAINER [the extension's arguments...]
record=$1
container=$2
shift 2
printf '%s\n' "$@" > "$record.part" && mv "$record.part" "$record"
view_only=false
for argument in "$@"; do
  [ "$argument" = --view-only ] && view_only=true
done
mkdir -p "$container"
exec flock -n "$container/broadcast.lock" sh -c '
  container=$1
  view_only=$2
  say() {
    printf "{\"phase\":\"%s\",\"pid\":%s,\"viewOnly\":%s,\"viewers\":1,\"operatedAtMs\":0,\"detail\":\"\"}" \
      "$1" $$ "$view_only" > "$container/broadcast.json"
  }
  trap "say stopped; exit 0" TERM
  sleep 0.5
  echo $$ > "$container/broadcast.lock"
  say live
  while :; do sleep 0.1; done' sh "$container" "$view_only"
