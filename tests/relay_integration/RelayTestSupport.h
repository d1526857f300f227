#pragma once

#include <QWebSocket>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QtTestSupport.h"
#include "velmorand/config/HandshakeResult.h"
#include "velmorand/platform/HttpClient.h"
#include "velmorand/sandbox/Sandbox.h"

namespace velmorand::testing {

// A sandbox with its relay, plain or over TLS with the test CA (trusted through
// VELMORAND_CA_FILE while the object lives), and one device paired through the real handshake.
class RelayBench {
  public:
    explicit RelayBench(bool tls, std::chrono::milliseconds pingInterval = std::chrono::seconds(5));
    ~RelayBench();

    sandbox::Sandbox& sandbox() { return *sandbox_; }
    const HandshakeResult& pairing() const { return pairing_; }
    bool tls() const { return tls_; }

  private:
    bool tls_;
    std::optional<ScopedEnv> caFile_;
    std::unique_ptr<sandbox::Sandbox> sandbox_;
    HandshakeResult pairing_;
};

// A dashboard viewer on the relay: what it sends goes to the device, what the device sends
// comes back here.
class Viewer {
  public:
    // Connects to relayWsUrl + "/viewer"; fails the test when it cannot.
    explicit Viewer(const std::string& relayWsUrl);

    void sendText(const std::string& text);
    void sendBinary(const std::string& bytes);
    // The next frame not yet taken, waiting for it; absent after the time limit.
    std::optional<std::string> next(std::chrono::milliseconds limit = std::chrono::seconds(10));

  private:
    QWebSocket socket_;
    std::vector<std::string> received_;
    std::size_t taken_ = 0;
};

}  // namespace velmorand::testing
