#include "SandboxRelay.h"

#include <QHostAddress>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>
#include <QUrlQuery>
#include <QWebSocket>
#include <algorithm>
#include <cstdint>
#include <span>
#include <utility>

#include "velmorand/relay/FrameHeader.h"

namespace velmorand::sandbox {

namespace {

using namespace std::chrono_literals;

constexpr int kUnauthorized = 4401;
constexpr int kNoSuchEndpoint = 4404;
constexpr int kTooManyViewers = 4429;
constexpr std::size_t kMaxViewers = 32;
// Beyond these Qt ends the link; up to them a message is read whole and then judged.
constexpr quint64 kMaxDeviceMessage = 2 * SandboxRelay::kMaxFrameBytes;
constexpr quint64 kMaxViewerMessage = 1024 * 1024;
// Viewer messages wait no longer than this behind a device that does not read.
constexpr qint64 kMaxDeviceBacklog = 4 * 1024 * 1024;
// However often viewers fall behind, the device is not asked for key frames more often.
constexpr auto kKeyFrameRequestInterval = 1s;
// A capture-time rate beyond this is a clock's fault, not a stream's.
constexpr std::int64_t kMaxFrameRate = 120;
// Our pings' answers; they end here instead of reaching viewers.
const QByteArray kPong = QByteArrayLiteral(R"({"type":"pong"})");
const QByteArray kPing = QByteArrayLiteral(R"({"type":"ping"})");
const QByteArray kDeviceOffline = QByteArrayLiteral(R"({"type":"device_offline"})");
const QByteArray kNeedStream = QByteArrayLiteral(R"({"type":"need_stream"})");
const QByteArray kRequestIdr = QByteArrayLiteral(R"({"type":"request_idr"})");
const QByteArray kStopStreaming =
    QByteArrayLiteral(R"({"type":"stream_control","streaming":false})");

QWebSocketProtocol::CloseCode closeCode(int code) {
    return static_cast<QWebSocketProtocol::CloseCode>(code);
}

// A signalling message's JSON object; absent for anything else.
std::optional<QJsonObject> signalOf(const QByteArray& payload) {
    if (!payload.contains("webrtc_")) {
        return std::nullopt;
    }
    const auto document = QJsonDocument::fromJson(payload);
    if (!document.isObject() || !document.object()
                                     .value(QStringLiteral("type"))
                                     .toString()
                                     .startsWith(QLatin1String("webrtc_"))) {
        return std::nullopt;
    }
    return document.object();
}

QByteArray compact(const QJsonObject& object) {
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
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

SandboxRelay::SandboxRelay(TokenCheck isIssuedToken, ViewerAccess viewers,
                           std::chrono::milliseconds pingInterval, bool peerToPeer)
    : isIssuedToken_(std::move(isIssuedToken)),
      viewerAccess_(std::move(viewers)),
      peerToPeer_(peerToPeer) {
    if (pingInterval.count() > 0) {
        QObject::connect(&pingTimer_, &QTimer::timeout, &context_, [this] {
            if (device_ != nullptr) {
                send(device_, kPing, false);
            }
        });
        pingTimer_.start(pingInterval);
    }
    keyFrameTimer_.setSingleShot(true);
    QObject::connect(&keyFrameTimer_, &QTimer::timeout, &context_, [this] {
        if (std::any_of(viewers_.begin(), viewers_.end(),
                        [](const Viewer& viewer) { return viewer.needsKeyFrame; })) {
            requestKeyFrame();
        }
    });
}

SandboxRelay::~SandboxRelay() {
    pingTimer_.stop();
    keyFrameTimer_.stop();
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
    // Queued: a write can end a link, and the loops over viewers must not lose their footing.
    QObject::connect(
        socket, &QWebSocket::disconnected, &context_,
        [this, socket] {
            forget(socket);
            socket->deleteLater();
        },
        Qt::QueuedConnection);
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
    socket->setMaxAllowedIncomingMessageSize(kMaxDeviceMessage);
    device_ = socket;
    deviceToken_ = token.toStdString();
    viewerPings_ = 0;
    ++deviceConnections_;
    // A new connection is a new stream: its first frames mean nothing to a viewer's decoder.
    budget_ = FrameBudget{};
    rateWindowFrames_ = 0;
    for (Viewer& viewer : viewers_) {
        viewer.needsKeyFrame = true;
    }
    relayViewersTold_ = false;
    if (std::any_of(viewers_.begin(), viewers_.end(),
                    [](const Viewer& viewer) { return viewer.peerToPeer; })) {
        tellRelayViewers();
    }
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
    if (!viewers_.empty()) {
        send(socket, kNeedStream, false);
    }
}

bool SandboxRelay::isOwnHost(QByteArrayView host) const {
    const QUrl url(QStringLiteral("http://") + QString::fromUtf8(host.data(), host.size()));
    const QString name = url.host().toLower();
    if (!url.isValid() || name.isEmpty() || url.userInfo() != QString() ||
        url.path() != QString()) {
        return false;
    }
    const QHostAddress address(name);
    return name == QLatin1String("localhost") || address.isLoopback() ||
           name == QString::fromStdString(viewerAccess_.host).toLower();
}

std::optional<std::pair<int, QString>> SandboxRelay::viewerRefusal(const QWebSocket& socket) const {
    const QUrlQuery query(socket.requestUrl());
    if (query.queryItemValue(QStringLiteral("token")) !=
        QString::fromStdString(viewerAccess_.token)) {
        return std::pair{kViewerTokenRefused,
                         QStringLiteral("a viewer needs this sandbox's viewer token")};
    }
    // A browser names the page that opens a socket; any page but ours is refused, token or not.
    // Ours was served from the very address the socket asks for (its port tells the scheme).
    const QString origin = socket.origin();
    if (!origin.isEmpty()) {
        const QByteArray host = socket.request().rawHeader("host");
        const QUrl asked(QStringLiteral("http://") + QString::fromUtf8(host));
        if (QUrl(origin).authority() != asked.authority() || !isOwnHost(host)) {
            return std::pair{kForeignPageRefused,
                             QStringLiteral("only this sandbox's own page may be a viewer")};
        }
    }
    return std::nullopt;
}

void SandboxRelay::acceptViewer(QWebSocket* socket) {
    if (const auto refusal = viewerRefusal(*socket)) {
        socket->close(closeCode(refusal->first), refusal->second);
        return;
    }
    if (viewers_.size() >= kMaxViewers) {
        socket->close(closeCode(kTooManyViewers), QStringLiteral("too many viewers"));
        return;
    }
    socket->setMaxAllowedIncomingMessageSize(kMaxViewerMessage);
    // Appended, not added to a literal: GCC 12's -O3 takes that for an overlapping copy.
    std::string id = "v";
    id += std::to_string(nextViewerNumber_++);
    viewers_.push_back(Viewer{.socket = socket, .id = std::move(id)});
    QObject::connect(
        socket, &QWebSocket::textMessageReceived, &context_,
        [this, socket](const QString& text) { fromViewer(socket, text.toUtf8(), false); });
    QObject::connect(socket, &QWebSocket::binaryMessageReceived, &context_,
                     [this, socket](const QByteArray& bytes) { fromViewer(socket, bytes, true); });
    if (device_ == nullptr) {
        return;
    }
    if (relayViewersTold_) {
        tellRelayViewers();
    }
    if (viewers_.size() == 1) {
        send(device_, kNeedStream, false);
    } else {
        requestKeyFrame();
    }
}

SandboxRelay::Viewer* SandboxRelay::viewerOf(QWebSocket* socket) {
    const auto it = std::find_if(viewers_.begin(), viewers_.end(), [socket](const Viewer& viewer) {
        return viewer.socket == socket;
    });
    return it == viewers_.end() ? nullptr : &*it;
}

void SandboxRelay::fromViewer(QWebSocket* socket, const QByteArray& payload, bool binary) {
    Viewer* viewer = viewerOf(socket);
    if (viewer == nullptr) {
        return;
    }
    if (device_ != nullptr) {
        device_->flush();
        if (device_->bytesToWrite() > kMaxDeviceBacklog) {
            return;
        }
        if (!binary && isPing(payload)) {
            ++viewerPings_;
        }
        if (binary) {
            send(device_, payload, true);
        } else if (const auto text = fromViewerText(*viewer, payload)) {
            send(device_, *text, false);
        }
        return;
    }
    for (const Viewer& viewer : viewers_) {
        send(viewer.socket, kDeviceOffline, false);
    }
}

std::optional<QByteArray> SandboxRelay::fromViewerText(Viewer& viewer, const QByteArray& payload) {
    auto signal = signalOf(payload);
    if (!signal) {
        // What the device would take for signalling, and this relay cannot read, must not pass
        // with whatever viewer it names.
        const bool looksLikeSignal =
            payload.contains(R"("type":"webrtc_)") || payload.contains(R"("type": "webrtc_)");
        return looksLikeSignal ? std::nullopt : std::optional(payload);
    }
    const QString type = signal->value(QStringLiteral("type")).toString();
    if (!peerToPeer_) {
        return std::nullopt;
    }
    if (type == QLatin1String("webrtc_offer")) {
        viewer.offered = true;
    } else if (type == QLatin1String("webrtc_close")) {
        viewer.offered = false;
        setPeerToPeer(viewer, false);
    } else if (type != QLatin1String("webrtc_ice")) {
        return std::nullopt;
    }
    // The relay names the viewer: a page cannot speak for another.
    signal->insert(QStringLiteral("viewerId"), QString::fromStdString(viewer.id));
    return compact(*signal);
}

bool SandboxRelay::routedSignal(const QByteArray& payload) {
    const auto signal = signalOf(payload);
    if (!signal) {
        return false;
    }
    const std::string id = signal->value(QStringLiteral("viewerId")).toString().toStdString();
    const auto viewer = std::find_if(viewers_.begin(), viewers_.end(),
                                     [&id](const Viewer& v) { return v.id == id; });
    if (viewer == viewers_.end()) {
        return true;
    }
    const QString type = signal->value(QStringLiteral("type")).toString();
    if (type == QLatin1String("webrtc_connected")) {
        // A connection the viewer has closed meanwhile does not take its frames away.
        if (!viewer->offered) {
            return true;
        }
        setPeerToPeer(*viewer, true);
    } else if (type == QLatin1String("webrtc_error")) {
        viewer->offered = false;
        setPeerToPeer(*viewer, false);
    }
    send(viewer->socket, payload, false);
    return true;
}

void SandboxRelay::setPeerToPeer(Viewer& viewer, bool peerToPeer) {
    if (viewer.peerToPeer == peerToPeer) {
        return;
    }
    viewer.peerToPeer = peerToPeer;
    tellRelayViewers();
    if (!peerToPeer) {
        // Back on relay frames, it has nothing to decode until a key frame.
        viewer.needsKeyFrame = true;
        requestKeyFrame();
    }
}

void SandboxRelay::tellRelayViewers() {
    if (device_ == nullptr) {
        return;
    }
    relayViewersTold_ = true;
    const auto count = std::count_if(viewers_.begin(), viewers_.end(),
                                     [](const Viewer& viewer) { return !viewer.peerToPeer; });
    send(device_,
         compact(QJsonObject{{QStringLiteral("type"), QStringLiteral("webrtc_relay_viewers")},
                             {QStringLiteral("count"), static_cast<qint64>(count)}}),
         false);
}

std::vector<SandboxRelay::ViewerState> SandboxRelay::viewerStates() const {
    std::vector<ViewerState> states;
    for (const Viewer& viewer : viewers_) {
        states.push_back({viewer.id, viewer.peerToPeer, viewer.forwarded});
    }
    return states;
}

void SandboxRelay::fromDevice(const QByteArray& payload, bool binary) {
    if (binary) {
        frameFromDevice(payload);
        return;
    }
    if (routedSignal(payload)) {
        return;
    }
    if (payload == kPong) {
        ++pongs_;
        if (viewerPings_ == 0) {
            return;
        }
        --viewerPings_;
    }
    for (const Viewer& viewer : viewers_) {
        send(viewer.socket, payload, false);
    }
}

void SandboxRelay::frameFromDevice(const QByteArray& frame) {
    const auto header =
        FrameHeader::read(std::span(reinterpret_cast<const std::uint8_t*>(frame.constData()),
                                    static_cast<std::size_t>(frame.size())));
    if (!header || frame.size() == static_cast<qsizetype>(FrameHeader::kSize) ||
        frame.size() > kMaxFrameBytes) {
        ++frames_.rejected;
        return;
    }
    ++frames_.received;
    measureFrameRate(header->captureTimeUs);
    budget_.sent(frame.size(), header->keyFrame);
    bool fellBehind = false;
    for (Viewer& viewer : viewers_) {
        if (viewer.peerToPeer) {
            continue;
        }
        // What the kernel would not take yet, not what merely waits for the next turn of the loop.
        viewer.socket->flush();
        const qint64 unwritten = viewer.socket->bytesToWrite();
        // An idle link takes any frame, or a frame beyond the budget could never pass.
        const bool hasRoom = unwritten == 0 || unwritten + frame.size() <= budget_.limit();
        if (!hasRoom && !viewer.needsKeyFrame) {
            viewer.needsKeyFrame = true;
            fellBehind = true;
        }
        if (viewer.needsKeyFrame && !(header->keyFrame && hasRoom)) {
            ++frames_.missed;
            continue;
        }
        viewer.needsKeyFrame = false;
        viewer.socket->sendBinaryMessage(frame);
        ++viewer.forwarded;
        ++frames_.forwarded;
    }
    if (fellBehind) {
        requestKeyFrame();
    }
}

void SandboxRelay::measureFrameRate(std::uint64_t captureTimeUs) {
    constexpr std::uint64_t kWindowUs = 1'000'000;
    if (rateWindowFrames_ == 0 || captureTimeUs < rateWindowStartUs_) {
        rateWindowStartUs_ = captureTimeUs;
        rateWindowFrames_ = 1;
        return;
    }
    const std::uint64_t elapsedUs = captureTimeUs - rateWindowStartUs_;
    if (elapsedUs < kWindowUs) {
        ++rateWindowFrames_;
        return;
    }
    // The frames counted span `elapsedUs`; this one opens the next window.
    const auto rate = static_cast<std::int64_t>(static_cast<std::uint64_t>(rateWindowFrames_) *
                                                kWindowUs / elapsedUs);
    budget_.setFrameRate(std::min(rate, kMaxFrameRate));
    rateWindowStartUs_ = captureTimeUs;
    rateWindowFrames_ = 1;
}

void SandboxRelay::requestKeyFrame() {
    if (device_ == nullptr || keyFrameTimer_.isActive()) {
        return;
    }
    const auto now = std::chrono::steady_clock::now();
    if (lastKeyFrameRequest_ && now - *lastKeyFrameRequest_ < kKeyFrameRequestInterval) {
        keyFrameTimer_.start(std::chrono::ceil<std::chrono::milliseconds>(
            *lastKeyFrameRequest_ + kKeyFrameRequestInterval - now));
        return;
    }
    lastKeyFrameRequest_ = now;
    send(device_, kRequestIdr, false);
}

void SandboxRelay::forget(QWebSocket* socket) {
    if (device_ == socket) {
        device_ = nullptr;
        return;
    }
    const auto viewer = std::find_if(viewers_.begin(), viewers_.end(),
                                     [socket](const Viewer& v) { return v.socket == socket; });
    if (viewer == viewers_.end()) {
        return;
    }
    const bool offered = viewer->offered;
    const std::string id = viewer->id;
    viewers_.erase(viewer);
    if (device_ == nullptr) {
        return;
    }
    if (offered) {
        send(device_,
             compact(QJsonObject{{QStringLiteral("type"), QStringLiteral("webrtc_close")},
                                 {QStringLiteral("viewerId"), QString::fromStdString(id)}}),
             false);
    }
    if (viewers_.empty()) {
        send(device_, kStopStreaming, false);
    } else if (relayViewersTold_) {
        tellRelayViewers();
    }
}

void SandboxRelay::dropAll() {
    device_ = nullptr;
    viewers_.clear();
    keyFrameTimer_.stop();
    for (QWebSocket* socket : context_.findChildren<QWebSocket*>()) {
        socket->abort();
    }
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
