#include "SandboxRelay.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QWebSocket>
#include <algorithm>
#include <utility>

namespace velmorand::sandbox {

namespace {

constexpr int kUnauthorized = 4401;
constexpr int kNoSuchEndpoint = 4404;
// Our pings' answers; they end here instead of reaching viewers.
const QByteArray kPong = QByteArrayLiteral(R"({"type":"pong"})");
const QByteArray kPing = QByteArrayLiteral(R"({"type":"ping"})");
const QByteArray kDeviceOffline = QByteArrayLiteral(R"({"type":"device_offline"})");

QWebSocketProtocol::CloseCode closeCode(int code) {
    return static_cast<QWebSocketProtocol::CloseCode>(code);
}

bool isPing(const QByteArray& payload) {
    const auto document = QJsonDocument::fromJson(payload);
    return document.isObject() &&
           document.object().value(QStringLiteral("type")) == QLatin1String("ping");
}

void send(QWebSocket* socket, const QByteArray& payload, bool binary) {
    if (binary) {
        socket->sendBinaryMessage(payload);
    } else {
        socket->sendTextMessage(QString::fromUtf8(payload));
    }
}

}  // namespace

SandboxRelay::SandboxRelay(TokenCheck isIssuedToken, std::chrono::milliseconds pingInterval)
    : isIssuedToken_(std::move(isIssuedToken)) {
    if (pingInterval.count() > 0) {
        QObject::connect(&pingTimer_, &QTimer::timeout, &context_, [this] {
            if (device_ != nullptr) {
                send(device_, kPing, false);
            }
        });
        pingTimer_.start(pingInterval);
    }
}

SandboxRelay::~SandboxRelay() {
    pingTimer_.stop();
    // Handlers must not run into a half-destroyed relay.
    for (QWebSocket* socket : context_.findChildren<QWebSocket*>()) {
        QObject::disconnect(socket, nullptr, nullptr, nullptr);
        socket->abort();
        delete socket;
    }
}

void SandboxRelay::accept(std::unique_ptr<QWebSocket> owned) {
    QWebSocket* socket = owned.release();
    socket->setParent(&context_);
    QObject::connect(socket, &QWebSocket::disconnected, &context_, [this, socket] {
        forget(socket);
        socket->deleteLater();
    });
    const QString path = socket->requestUrl().path();
    if (path.endsWith(QLatin1String("/device"))) {
        acceptDevice(socket);
    } else if (path.endsWith(QLatin1String("/viewer"))) {
        acceptViewer(socket);
    } else {
        socket->close(closeCode(kNoSuchEndpoint), QStringLiteral("no such relay endpoint"));
    }
}

void SandboxRelay::acceptDevice(QWebSocket* socket) {
    const QByteArray token = socket->request().rawHeader("x-device-token");
    lastDeviceToken_ = token.toStdString();
    if (token.isEmpty() || !isIssuedToken_(token.toStdString())) {
        socket->close(closeCode(kUnauthorized), QStringLiteral("unauthorized"));
        return;
    }
    // One device: a newer connection replaces a link that may already be dead.
    if (device_ != nullptr) {
        QWebSocket* previous = std::exchange(device_, nullptr);
        previous->close(QWebSocketProtocol::CloseCodeNormal, QStringLiteral("replaced"));
    }
    device_ = socket;
    deviceToken_ = token.toStdString();
    viewerPings_ = 0;
    ++deviceConnections_;
    QObject::connect(socket, &QWebSocket::textMessageReceived, &context_,
                     [this, socket](const QString& text) {
                         if (socket == device_) {
                             fromDevice(text.toUtf8(), false);
                         }
                     });
    QObject::connect(socket, &QWebSocket::binaryMessageReceived, &context_,
                     [this, socket](const QByteArray& bytes) {
                         if (socket == device_) {
                             fromDevice(bytes, true);
                         }
                     });
}

void SandboxRelay::acceptViewer(QWebSocket* socket) {
    viewers_.push_back(socket);
    QObject::connect(socket, &QWebSocket::textMessageReceived, &context_,
                     [this](const QString& text) { fromViewer(text.toUtf8(), false); });
    QObject::connect(socket, &QWebSocket::binaryMessageReceived, &context_,
                     [this](const QByteArray& bytes) { fromViewer(bytes, true); });
}

void SandboxRelay::fromViewer(const QByteArray& payload, bool binary) {
    if (device_ != nullptr) {
        if (!binary && isPing(payload)) {
            ++viewerPings_;
        }
        send(device_, payload, binary);
        return;
    }
    for (QWebSocket* viewer : viewers_) {
        send(viewer, kDeviceOffline, false);
    }
}

void SandboxRelay::fromDevice(const QByteArray& payload, bool binary) {
    if (!binary && payload == kPong) {
        ++pongs_;
        if (viewerPings_ == 0) {
            return;
        }
        --viewerPings_;
    }
    for (QWebSocket* viewer : viewers_) {
        send(viewer, payload, binary);
    }
}

void SandboxRelay::forget(QWebSocket* socket) {
    if (device_ == socket) {
        device_ = nullptr;
    }
    viewers_.erase(std::remove(viewers_.begin(), viewers_.end(), socket), viewers_.end());
}

void SandboxRelay::dropAll() {
    for (QWebSocket* socket : context_.findChildren<QWebSocket*>()) {
        socket->abort();
    }
    device_ = nullptr;
    viewers_.clear();
}

bool SandboxRelay::closeDevice(int code, const QString& reason) {
    if (device_ == nullptr) {
        return false;
    }
    QWebSocket* device = std::exchange(device_, nullptr);
    device->close(closeCode(code), reason);
    return true;
}

bool SandboxRelay::sendToDevice(const QByteArray& payload, bool binary) {
    if (device_ == nullptr) {
        return false;
    }
    send(device_, payload, binary);
    return true;
}

}  // namespace velmorand::sandbox
