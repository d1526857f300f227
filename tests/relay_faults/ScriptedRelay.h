#pragma once

#include <sys/socket.h>

#include <QByteArray>
#include <QCryptographicHash>
#include <QSslServer>
#include <QSslSocket>
#include <QTcpServer>
#include <QTcpSocket>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "QtTestSupport.h"

namespace velmorand::testing {

// The header of one server frame (unmasked, FIN set) for a payload of `size` bytes, which a test
// may then not write; `reservedBits` are ORed into the first byte.
inline QByteArray frameHeader(std::uint8_t opcode, std::uint64_t size,
                              std::uint8_t reservedBits = 0) {
    QByteArray bytes(1, static_cast<char>(0x80 | reservedBits | opcode));
    if (size < 126) {
        bytes.append(static_cast<char>(size));
    } else if (size <= 0xFFFF) {
        bytes.append(static_cast<char>(126));
        bytes.append(static_cast<char>(size >> 8));
        bytes.append(static_cast<char>(size & 0xFF));
    } else {
        bytes.append(static_cast<char>(127));
        for (int shift = 56; shift >= 0; shift -= 8) {
            bytes.append(static_cast<char>((size >> shift) & 0xFF));
        }
    }
    return bytes;
}

// One server frame, header and payload.
inline QByteArray frame(std::uint8_t opcode, const QByteArray& payload,
                        std::uint8_t reservedBits = 0) {
    return frameHeader(opcode, static_cast<std::uint64_t>(payload.size()), reservedBits) + payload;
}

// The healthy script's probe and the answer it expects.
inline constexpr std::int64_t kHealthyProbe = 42;
inline std::string probeFrame(std::int64_t t, const std::string& padding = "") {
    nlohmann::json probe = {{"type", "latency_ping"}, {"t", t}, {"viewerId", "viewer-1"}};
    if (!padding.empty()) {
        probe["padding"] = padding;
    }
    return probe.dump();
}
inline bool isProbeAnswer(const std::string& text, std::int64_t t) {
    const auto answer = nlohmann::json::parse(text, nullptr, false);
    return answer.is_object() && answer.value("type", "") == "latency_pong" &&
           answer.value("t", std::int64_t{-1}) == t && answer.value("viewerId", "") == "viewer-1";
}

// One device connection as the relay sees it, after the upgrade was answered. Frames are written
// by hand, so a fault can be placed at any byte.
class RelayPeer {
  public:
    explicit RelayPeer(QTcpSocket* socket) : socket_(socket) {
        QObject::connect(socket_, &QTcpSocket::readyRead, socket_, [this] { readFrames(); });
    }

    void sendText(const std::string& text) { sendRaw(frame(0x1, QByteArray::fromStdString(text))); }
    // Raw bytes as they are: a half frame, a frame with reserved bits, garbage.
    void sendRaw(const QByteArray& bytes) {
        if (!reading_ && qobject_cast<QSslSocket*>(socket_) == nullptr) {
            // Past Qt, which may hold writes back on a socket whose reading it has paused; what
            // the device's side has no room for is lost, as a relay's probes may be.
            ::send(static_cast<int>(socket_->socketDescriptor()), bytes.constData(),
                   static_cast<std::size_t>(bytes.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
            return;
        }
        socket_->write(bytes);
    }
    void sendClose(int code, const std::string& reason) {
        QByteArray payload;
        payload.append(static_cast<char>((code >> 8) & 0xFF));
        payload.append(static_cast<char>(code & 0xFF));
        payload.append(QByteArray::fromStdString(reason));
        sendRaw(frame(0x8, payload));
    }
    // Goes away without a close frame: FIN after what was written.
    void hangUp() { socket_->disconnectFromHost(); }
    // Goes away with a TCP reset, dropping what was not yet sent.
    void reset() {
        socket_->flush();
        const linger abortive{1, 0};
        ::setsockopt(static_cast<int>(socket_->socketDescriptor()), SOL_SOCKET, SO_LINGER,
                     &abortive, sizeof abortive);
        socket_->close();
    }
    // Reads nothing more: what the device sends piles up on its side once the system's buffers
    // are full.
    void stopReading() {
        socket_->flush();
        reading_ = false;
        QObject::disconnect(socket_, &QTcpSocket::readyRead, socket_, nullptr);
        // Qt would otherwise go on taking everything into a buffer of its own.
        socket_->setReadBufferSize(1);
    }

    // Text frames the device sent, in order.
    const std::vector<std::string>& received() const { return received_; }
    // Answers to the healthy script's probe among them.
    int probesAnswered() const { return probesAnswered_; }

  private:
    // Client frames are masked; continuation frames are joined; a close is answered and ends it.
    void readFrames() {
        buffer_.append(socket_->readAll());
        while (buffer_.size() >= 2) {
            const auto byte0 = static_cast<std::uint8_t>(buffer_[0]);
            const auto byte1 = static_cast<std::uint8_t>(buffer_[1]);
            std::uint64_t size = byte1 & 0x7F;
            qsizetype offset = 2;
            const int extra = size == 126 ? 2 : size == 127 ? 8 : 0;
            if (buffer_.size() < offset + extra + 4) {
                return;
            }
            if (extra > 0) {
                size = 0;
                for (int i = 0; i < extra; ++i) {
                    size = (size << 8) | static_cast<std::uint8_t>(buffer_[offset + i]);
                }
                offset += extra;
            }
            const QByteArray mask = buffer_.mid(offset, 4);
            offset += 4;
            if (static_cast<std::uint64_t>(buffer_.size() - offset) < size) {
                return;
            }
            QByteArray payload = buffer_.mid(offset, static_cast<qsizetype>(size));
            for (qsizetype i = 0; i < payload.size(); ++i) {
                payload[i] = static_cast<char>(payload[i] ^ mask[i % 4]);
            }
            buffer_.remove(0, offset + static_cast<qsizetype>(size));

            const int opcode = byte0 & 0x0F;
            if (opcode == 0x8) {
                sendRaw(frame(0x8, payload.left(2)));
                hangUp();
                return;
            }
            if (opcode == 0x1 || opcode == 0x0) {
                fragments_.append(payload);
                if ((byte0 & 0x80) != 0) {
                    received_.push_back(fragments_.toStdString());
                    fragments_.clear();
                    probesAnswered_ += isProbeAnswer(received_.back(), kHealthyProbe) ? 1 : 0;
                }
            }
        }
    }

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
    explicit ScriptedRelay(std::optional<ScriptedServer::Tls> tls = std::nullopt)
        : server_(tcpServer(tls)) {
        if (!server_->listen(QHostAddress::LocalHost)) {
            throw std::runtime_error("cannot listen on loopback");
        }
        beHealthy();
        // QSslServer hands connections out once encrypted; the plain server at once.
        QObject::connect(server_.get(), &QTcpServer::pendingConnectionAvailable, server_.get(),
                         [this] {
                             while (QTcpSocket* socket = server_->nextPendingConnection()) {
                                 accept(socket);
                             }
                         });
    }

    // "ws(s)://127.0.0.1:<port>", the relay base the device appends "/device" to.
    std::string base() const {
        const bool tls = qobject_cast<const QSslServer*>(server_.get()) != nullptr;
        return (tls ? "wss://127.0.0.1:" : "ws://127.0.0.1:") +
               std::to_string(server_->serverPort());
    }

    // Healthy behaviour from the next connection on.
    void beHealthy() {
        answerUpgrades = true;
        onUpgraded = [](RelayPeer& peer) { peer.sendText(probeFrame(kHealthyProbe)); };
    }
    bool answerUpgrades = true;
    std::function<void(RelayPeer&)> onUpgraded;

    // Connections accepted, upgrade requests read, and latency probes answered.
    int connections() const { return static_cast<int>(accepted_.size()); }
    const std::vector<QByteArray>& upgradeRequests() const { return requests_; }
    const std::vector<std::chrono::steady_clock::time_point>& acceptedAt() const {
        return accepted_;
    }
    int probesAnswered() const {
        int answered = 0;
        for (const auto& peer : peers_) {
            answered += peer->probesAnswered();
        }
        return answered;
    }
    // The connection upgraded last; null before the first.
    RelayPeer* latest() const { return peers_.empty() ? nullptr : peers_.back().get(); }

  private:
    static QByteArray acceptKey(const QByteArray& request) {
        for (const QByteArray& line : request.split('\n')) {
            const auto colon = line.indexOf(':');
            if (colon > 0 && line.left(colon).trimmed().toLower() == "sec-websocket-key") {
                return QCryptographicHash::hash(
                           line.mid(colon + 1).trimmed() + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11",
                           QCryptographicHash::Sha1)
                    .toBase64();
            }
        }
        return {};
    }

    // Reads the request head, then answers (or not) according to the script of this moment.
    void accept(QTcpSocket* socket) {
        accepted_.push_back(std::chrono::steady_clock::now());
        auto head = std::make_shared<QByteArray>();
        const bool answer = answerUpgrades;
        const auto script = onUpgraded;
        auto connection = std::make_shared<QMetaObject::Connection>();
        *connection =
            QObject::connect(socket, &QTcpSocket::readyRead, socket,
                             [this, socket, head, answer, script, connection] {
                                 head->append(socket->readAll());
                                 const auto end = head->indexOf("\r\n\r\n");
                                 if (end < 0) {
                                     return;
                                 }
                                 QObject::disconnect(*connection);
                                 requests_.push_back(head->left(end));
                                 if (!answer) {
                                     return;
                                 }
                                 socket->write(
                                     "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
                                     "Connection: Upgrade\r\nSec-WebSocket-Accept: " +
                                     acceptKey(*head) + "\r\n\r\n");
                                 peers_.push_back(std::make_unique<RelayPeer>(socket));
                                 if (script) {
                                     script(*peers_.back());
                                 }
                             });
    }

    std::unique_ptr<QTcpServer> server_;
    std::vector<std::chrono::steady_clock::time_point> accepted_;
    std::vector<QByteArray> requests_;
    std::vector<std::unique_ptr<RelayPeer>> peers_;
};

}  // namespace velmorand::testing
