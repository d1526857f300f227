#pragma once

#include <QByteArray>
#include <QTcpServer>
#include <QTcpSocket>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "QtTestSupport.h"

namespace velmorand::testing {

// One device connection as the relay sees it, after the upgrade was answered. Frames are written
// by hand, so a fault can be placed at any byte.
class RelayPeer {
  public:
    explicit RelayPeer(QTcpSocket* socket);

    void sendText(const std::string& text);
    // Raw bytes as they are: a half frame, a frame with reserved bits, garbage.
    void sendRaw(const QByteArray& bytes);
    void sendClose(int code, const std::string& reason);
    // Goes away without a close frame: FIN after what was written.
    void hangUp();
    // Goes away with a TCP reset, dropping what was not yet sent.
    void reset();
    // Reads nothing more: what the device sends piles up on its side once the system's buffers
    // are full.
    void stopReading();

    // Text frames the device sent, in order.
    const std::vector<std::string>& received() const { return received_; }
    // Answers to the healthy script's probe among them.
    int probesAnswered() const { return probesAnswered_; }

  private:
    void readFrames();

    QTcpSocket* socket_;
    bool reading_ = true;
    QByteArray buffer_;
    QByteArray fragments_;
    std::vector<std::string> received_;
    int probesAnswered_ = 0;
};

// A loopback WebSocket relay, scripted by the test: every new connection's upgrade is answered
// (or left unanswered) and then handed to `onUpgraded`. By default the connection is healthy: it
// gets one "latency_ping" probe and counts its answer.
class ScriptedRelay {
  public:
    // Over TLS with `tls`, plain otherwise.
    explicit ScriptedRelay(std::optional<ScriptedServer::Tls> tls = std::nullopt);

    // "ws(s)://127.0.0.1:<port>", the relay base the device appends "/device" to.
    std::string base() const;

    // Healthy behaviour from the next connection on.
    void beHealthy();
    bool answerUpgrades = true;
    std::function<void(RelayPeer&)> onUpgraded;

    // Connections accepted, upgrade requests read, and latency probes answered.
    int connections() const { return static_cast<int>(accepted_.size()); }
    const std::vector<QByteArray>& upgradeRequests() const { return requests_; }
    const std::vector<std::chrono::steady_clock::time_point>& acceptedAt() const {
        return accepted_;
    }
    int probesAnswered() const;
    // The connection upgraded last; null before the first.
    RelayPeer* latest() const { return peers_.empty() ? nullptr : peers_.back().get(); }

  private:
    void accept(QTcpSocket* socket);

    std::unique_ptr<QTcpServer> server_;
    std::vector<std::chrono::steady_clock::time_point> accepted_;
    std::vector<QByteArray> requests_;
    std::vector<std::unique_ptr<RelayPeer>> peers_;
};

// One server frame (unmasked, FIN set unless `fin` is false); `firstByteExtra` ORs reserved bits
// into the first byte.
QByteArray frame(std::uint8_t opcode, const QByteArray& payload, bool fin = true,
                 std::uint8_t firstByteExtra = 0);

// The healthy script's probe and the answer it expects.
std::string probeFrame(std::int64_t t, const std::string& padding = "");
bool isProbeAnswer(const std::string& text, std::int64_t t);

}  // namespace velmorand::testing
