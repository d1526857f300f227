#pragma once

#include <QSslConfiguration>

namespace velmorand::qtdetail {

// Environment variable naming a PEM file of extra certificate authorities to trust, for test
// servers with a private CA.
inline constexpr const char* kCaFileVariable = "VELMORAND_CA_FILE";

// The TLS settings of every outgoing connection: peers verified against the system's CAs plus
// those of the file named by the environment variable, read at the time of the call.
QSslConfiguration clientTlsConfiguration();

}  // namespace velmorand::qtdetail
