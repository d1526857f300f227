#include "ScriptedRelay.h"

#include <sys/socket.h>

#include <QCryptographicHash>
#include <QSslServer>
#include <QSslSocket>
#include <nlohmann/json.hpp>
#include <stdexcept>

namespace velmorand::testing {
namespace {

constexpr std::int64_t kHealthyProbe = 42;

QByteArray acceptKey(const QByteArray& request) {
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

}  // namespace

QByteArray frame(std::uint8_t opcode, const QByteArray& payload, bool fin,
                 std::uint8_t firstByteExtra) {
    QByteArray bytes;
    bytes.append(static_cast<char>((fin ? 0x80 : 0) | firstByteExtra | opcode));
    const auto size = static_cast<std::uint64_t>(payload.size());
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
    return bytes + payload;
}

std::string probeFrame(std::int64_t t, const std::string& padding) {
    nlohmann::json probe = {{"type", "latency_ping"}, {"t", t}, {"viewerId", "viewer-1"}};
    if (!padding.empty()) {
        probe["padding"] = padding;
    }
    return probe.dump();
}

bool isProbeAnswer(const std::string& text, std::int64_t t) {
    const auto answer = nlohmann::json::parse(text, nullptr, false);
    return answer.is_object() && answer.value("type", "") == "latency_pong" &&
           answer.value("t", std::int64_t{-1}) == t && answer.value("viewerId", "") == "viewer-1";
}

RelayPeer::RelayPeer(QTcpSocket* socket) : socket_(socket) {
    QObject::connect(socket_, &QTcpSocket::readyRead, socket_, [this] { readFrames(); });
}

void RelayPeer::sendText(const std::string& text) {
    sendRaw(frame(0x1, QByteArray::fromStdString(text)));
}

void RelayPeer::sendRaw(const QByteArray& bytes) {
    if (!reading_ && qobject_cast<QSslSocket*>(socket_) == nullptr) {
        // Past Qt, which may hold writes back on a socket whose reading it has paused; what the
        // device's side has no room for is lost, as a relay's probes may be.
        ::send(static_cast<int>(socket_->socketDescriptor()), bytes.constData(),
               static_cast<std::size_t>(bytes.size()), MSG_DONTWAIT | MSG_NOSIGNAL);
        return;
    }
    socket_->write(bytes);
}

void RelayPeer::sendClose(int code, const std::string& reason) {
    QByteArray payload;
    payload.append(static_cast<char>((code >> 8) & 0xFF));
    payload.append(static_cast<char>(code & 0xFF));
    payload.append(QByteArray::fromStdString(reason));
    sendRaw(frame(0x8, payload));
}

void RelayPeer::hangUp() {
    socket_->disconnectFromHost();
}

void RelayPeer::reset() {
    socket_->flush();
    const linger abortive{1, 0};
    ::setsockopt(static_cast<int>(socket_->socketDescriptor()), SOL_SOCKET, SO_LINGER, &abortive,
                 sizeof abortive);
    socket_->close();
}

void RelayPeer::stopReading() {
    socket_->flush();
    reading_ = false;
    QObject::disconnect(socket_, &QTcpSocket::readyRead, socket_, nullptr);
    // Qt would otherwise go on taking everything into a buffer of its own.
    socket_->setReadBufferSize(1);
}

// Client frames are masked; continuation frames are joined; a close is answered and ends it.
void RelayPeer::readFrames() {
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

ScriptedRelay::ScriptedRelay(std::optional<ScriptedServer::Tls> tls) {
    if (tls) {
        auto server = std::make_unique<QSslServer>();
        server->setSslConfiguration(serverTls(tls->certificate, tls->key));
        server_ = std::move(server);
    } else {
        server_ = std::make_unique<QTcpServer>();
    }
    if (!server_->listen(QHostAddress::LocalHost)) {
        throw std::runtime_error("cannot listen on loopback");
    }
    beHealthy();
    // QSslServer hands connections out once encrypted; the plain server at once.
    QObject::connect(server_.get(), &QTcpServer::pendingConnectionAvailable, server_.get(), [this] {
        while (QTcpSocket* socket = server_->nextPendingConnection()) {
            accept(socket);
        }
    });
}

std::string ScriptedRelay::base() const {
    const bool tls = qobject_cast<const QSslServer*>(server_.get()) != nullptr;
    return (tls ? "wss://127.0.0.1:" : "ws://127.0.0.1:") + std::to_string(server_->serverPort());
}

void ScriptedRelay::beHealthy() {
    answerUpgrades = true;
    onUpgraded = [](RelayPeer& peer) { peer.sendText(probeFrame(kHealthyProbe)); };
}

int ScriptedRelay::probesAnswered() const {
    int answered = 0;
    for (const auto& peer : peers_) {
        answered += peer->probesAnswered();
    }
    return answered;
}

// Reads the request head, then answers (or not) according to the script of this moment.
void ScriptedRelay::accept(QTcpSocket* socket) {
    accepted_.push_back(std::chrono::steady_clock::now());
    auto head = std::make_shared<QByteArray>();
    const bool answer = answerUpgrades;
    const auto script = onUpgraded;
    auto connection = std::make_shared<QMetaObject::Connection>();
    *connection = QObject::connect(
        socket, &QTcpSocket::readyRead, socket, [this, socket, head, answer, script, connection] {
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

}  // namespace velmorand::testing
