#include "Relay.h"

#include <QAbstractSocket>
#include <QCryptographicHash>
#include <QDateTime>
#include <QNetworkRequest>
#include <QTcpSocket>
#include <QWebSocket>
#include <algorithm>
#include <cstdio>

#include "Harness.h"

namespace velmorand::bench {
namespace {

// The relay's part of the upgrade, as RFC 6455 section 4.2.2 has it.
QByteArray acceptKey(const QByteArray& key) {
    return QCryptographicHash::hash(key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11",
                                    QCryptographicHash::Sha1)
        .toBase64();
}

QByteArray textFrame(const std::string& text) {
    QByteArray frame;
    frame.append(static_cast<char>(0x81));
    const auto size = text.size();
    if (size < 126) {
        frame.append(static_cast<char>(size));
    } else {
        frame.append(static_cast<char>(126));
        frame.append(static_cast<char>((size >> 8) & 0xFF));
        frame.append(static_cast<char>(size & 0xFF));
    }
    frame.append(text.data(), static_cast<qsizetype>(size));
    return frame;
}

}  // namespace

BenchRelay::BenchRelay(std::string token)
    : token_(std::move(token)),
      server_(QStringLiteral("bench relay"), QWebSocketServer::NonSecureMode) {
    if (!server_.listen(QHostAddress::LocalHost)) {
        throw HarnessFailure("the bench relay cannot listen on loopback");
    }
    QObject::connect(&server_, &QWebSocketServer::newConnection, this, [this] { accept(); });
}

BenchRelay::~BenchRelay() {
    delete device_;
}

std::string BenchRelay::baseUrl() const {
    return "ws://127.0.0.1:" + std::to_string(server_.serverPort()) + "/relay";
}

void BenchRelay::accept() {
    while (QWebSocket* socket = server_.nextPendingConnection()) {
        ++connections_;
        const auto request = socket->request();
        complaint_.clear();
        if (request.rawHeader("x-device-token").toStdString() != token_) {
            complaint_ = "the device sent the wrong token";
        } else if (!request.url().path().endsWith(QStringLiteral("/relay/device"))) {
            complaint_ = "the device asked for " + request.url().path().toStdString();
        }
        // The newest connection is the device's; an older one is a link it gave up on.
        delete device_;
        device_ = socket;
        QObject::connect(
            socket, &QWebSocket::binaryMessageReceived, this, [this](const QByteArray& message) {
                const std::uint64_t now = realtimeUs();
                if (onBinary) {
                    onBinary(std::span(reinterpret_cast<const std::uint8_t*>(message.constData()),
                                       static_cast<std::size_t>(message.size())),
                             now);
                }
            });
        QObject::connect(socket, &QWebSocket::textMessageReceived, this,
                         [this](const QString& text) {
                             if (onText) {
                                 onText(text);
                             }
                         });
        QObject::connect(socket, &QWebSocket::disconnected, this, [this, socket] {
            if (device_ == socket) {
                device_ = nullptr;
                socket->deleteLater();
            }
        });
    }
}

bool BenchRelay::sendText(const std::string& text) {
    if (device_ == nullptr) {
        return false;
    }
    device_->sendTextMessage(QString::fromStdString(text));
    return true;
}

ThrottledRelay::ThrottledRelay(std::string token, Pace pace, std::string greeting)
    : token_(std::move(token)), pace_(pace), greeting_(std::move(greeting)) {
    if (!server_.listen(QHostAddress::LocalHost)) {
        throw HarnessFailure("the throttled relay cannot listen on loopback");
    }
    QObject::connect(&server_, &QTcpServer::newConnection, this, [this] { accept(); });
    QObject::connect(&ticker_, &QTimer::timeout, this, [this] { tick(); });
    ticker_.start(100);
    startedMs_ = QDateTime::currentMSecsSinceEpoch();
}

ThrottledRelay::~ThrottledRelay() {
    delete device_;
}

std::string ThrottledRelay::baseUrl() const {
    return "ws://127.0.0.1:" + std::to_string(server_.serverPort()) + "/relay";
}

void ThrottledRelay::accept() {
    while (QTcpSocket* socket = server_.nextPendingConnection()) {
        ++counts_.connections;
        delete device_;
        device_ = socket;
        upgraded_ = false;
        headerHave_ = 0;
        payloadLeft_ = 0;
        // Small buffers on this side, so that what the relay has not read stays with the sender
        // rather than in this process or the kernel's receive queue.
        socket->setSocketOption(QAbstractSocket::ReceiveBufferSizeSocketOption, 64 * 1024);
        socket->setReadBufferSize(64 * 1024);
        QObject::connect(socket, &QTcpSocket::readyRead, this, [this, socket] {
            if (socket == device_ && !upgraded_) {
                upgrade();
            }
        });
        QObject::connect(socket, &QTcpSocket::disconnected, this, [this, socket] {
            if (device_ == socket) {
                device_ = nullptr;
                socket->deleteLater();
            }
        });
        if (socket->bytesAvailable() > 0) {
            upgrade();
        }
    }
}

void ThrottledRelay::upgrade() {
    // The request is small: it is read whole, whatever the pace.
    const QByteArray head = device_->peek(64 * 1024);
    const auto end = head.indexOf("\r\n\r\n");
    if (end < 0) {
        return;
    }
    device_->read(end + 4);
    QByteArray key;
    QByteArray token;
    QByteArray target;
    const auto lines = head.left(end).split('\n');
    for (qsizetype i = 0; i < lines.size(); ++i) {
        const QByteArray line = lines[i].trimmed();
        if (i == 0) {
            const auto parts = line.split(' ');
            target = parts.size() > 1 ? parts[1] : QByteArray();
            continue;
        }
        const auto colon = line.indexOf(':');
        if (colon < 0) {
            continue;
        }
        const QByteArray name = line.left(colon).trimmed().toLower();
        const QByteArray value = line.mid(colon + 1).trimmed();
        if (name == "sec-websocket-key") {
            key = value;
        } else if (name == "x-device-token") {
            token = value;
        }
    }
    complaint_.clear();
    if (token.toStdString() != token_) {
        complaint_ = "the device sent the wrong token";
    } else if (!target.endsWith("/relay/device")) {
        complaint_ = "the device asked for " + target.toStdString();
    }
    device_->write(
        "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\n"
        "Connection: Upgrade\r\nSec-WebSocket-Accept: " +
        acceptKey(key) + "\r\n\r\n");
    device_->write(textFrame(greeting_));
    upgraded_ = true;
}

void ThrottledRelay::tick() {
    const std::int64_t nowMs = QDateTime::currentMSecsSinceEpoch();
    const std::int64_t sinceLastMs = lastTickMs_ == 0 ? 0 : nowMs - lastTickMs_;
    lastTickMs_ = nowMs;
    if (device_ == nullptr || !upgraded_) {
        budget_ = 0;
        return;
    }
    const std::int64_t elapsedMs = nowMs - startedMs_;
    const std::int64_t cycleMs = std::int64_t{pace_.cycleSeconds} * 1000;
    if (cycleMs > 0 && elapsedMs % cycleMs >= cycleMs - std::int64_t{pace_.stallSeconds} * 1000) {
        budget_ = 0;
        return;
    }
    // A token bucket: a tick that found less to read than its share leaves the rest to the next
    // ones, so that the mean rate is the one asked for; at most a second's worth is saved up.
    const double perMs = pace_.readKiBps * 1024 / 1000;
    budget_ = std::min(budget_ + perMs * static_cast<double>(sinceLastMs), perMs * 1000);
    std::uint8_t buffer[16 * 1024];
    while (budget_ >= 1) {
        const qint64 got = device_->read(
            reinterpret_cast<char*>(buffer),
            std::min<qint64>(static_cast<qint64>(budget_), static_cast<qint64>(sizeof buffer)));
        if (got <= 0) {
            break;
        }
        budget_ -= static_cast<double>(got);
        counts_.bytesRead += static_cast<std::uint64_t>(got);
        consume(buffer, static_cast<std::size_t>(got));
    }
}

void ThrottledRelay::consume(const std::uint8_t* data, std::size_t size) {
    while (size > 0) {
        if (payloadLeft_ > 0) {
            const auto skip = static_cast<std::size_t>(std::min<std::uint64_t>(payloadLeft_, size));
            payloadLeft_ -= skip;
            data += skip;
            size -= skip;
            if (payloadLeft_ == 0 && finalFrame_) {
                ++(messageOpcode_ == 2 ? counts_.binaryMessages : counts_.textMessages);
            }
            continue;
        }
        header_[headerHave_++] = *data++;
        --size;
        if (headerHave_ < 2) {
            continue;
        }
        const std::uint8_t lengthCode = header_[1] & 0x7F;
        const std::size_t lengthBytes = lengthCode == 126 ? 2 : lengthCode == 127 ? 8 : 0;
        const std::size_t maskBytes = (header_[1] & 0x80) != 0 ? 4 : 0;
        if (headerHave_ < 2 + lengthBytes + maskBytes) {
            continue;
        }
        std::uint64_t length = lengthCode;
        if (lengthBytes > 0) {
            length = 0;
            for (std::size_t i = 0; i < lengthBytes; ++i) {
                length = (length << 8) | header_[2 + i];
            }
        }
        const std::uint8_t opcode = header_[0] & 0x0F;
        // Control frames (close, ping, pong) may come between the fragments of a message and
        // are not messages of the stream.
        const bool control = (opcode & 0x08) != 0;
        finalFrame_ = !control && (header_[0] & 0x80) != 0;
        if (opcode == 1 || opcode == 2) {
            messageOpcode_ = opcode;
        }
        headerHave_ = 0;
        payloadLeft_ = length;
        if (length == 0 && finalFrame_) {
            ++(messageOpcode_ == 2 ? counts_.binaryMessages : counts_.textMessages);
        }
    }
}

}  // namespace velmorand::bench
