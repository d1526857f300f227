#pragma once

#include <QWebSocket>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QtTestSupport.h"
#include "ScopedEnv.h"
#include "velmorand/config/HandshakeResult.h"
#include "velmorand/sandbox/Sandbox.h"

namespace velmorand::testing {

// A sandbox with its relay, plain or over TLS with the test CA (trusted through
// VELMORAND_CA_FILE while the object lives), and one device paired through the real handshake.
struct RelayBench {
    explicit RelayBench(bool tls);

    std::optional<ScopedEnv> caFile;
    std::unique_ptr<sandbox::Sandbox> sandbox;
    HandshakeResult pairing;
};

// A dashboard viewer on the relay: what it sends goes to the device, what the device sends
// comes back here.
class Viewer {
  public:
    explicit Viewer(const std::string& relayWsUrl);
    void send(const std::string& frame);
    // The next frame not yet taken, waiting for it; absent after 10 seconds.
    std::optional<std::string> next();

  private:
    QWebSocket socket_;
    std::vector<std::string> received_;
    std::size_t taken_ = 0;
};

}  // namespace velmorand::testing
