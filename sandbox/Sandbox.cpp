#include "velmorand/sandbox/Sandbox.h"

#include "SandboxRelay.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QFile>
#include <QHostAddress>
#include <QHttpServer>
#include <QHttpServerRequest>
#include <QHttpServerResponder>
#include <QHttpServerResponse>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QRandomGenerator>
#include <QSslCertificate>
#include <QSslKey>
#include <QTcpServer>
#include <QTcpSocket>
#include <QTimer>
#include <QUrlQuery>
#include <QWebSocket>
#include <map>
#include <memory>
#include <utility>

namespace velmorand::sandbox {

namespace {

using Status = QHttpServerResponse::StatusCode;
using Clock = std::chrono::steady_clock;

constexpr auto kUnknownKey = "Unknown access key";

QHttpServerResponse errorResponse(const QString& message, Status status) {
    return QHttpServerResponse(QJsonObject{{QStringLiteral("error"), message}}, status);
}

std::optional<QJsonObject> jsonObject(const QByteArray& body) {
    QJsonParseError parseError{};
    const auto document = QJsonDocument::fromJson(body, &parseError);
    if (parseError.error != QJsonParseError::NoError || !document.isObject()) {
        return std::nullopt;
    }
    return document.object();
}

QString randomToken() {
    QByteArray bytes(24, Qt::Uninitialized);
    QRandomGenerator::system()->generate(bytes.begin(), bytes.end());
    return QString::fromLatin1(bytes.toHex());
}

// Stable per key, so that re-pairing with one key reads as the same device.
QString deviceIdFor(const std::string& key) {
    const auto digest =
        QCryptographicHash::hash(QByteArray::fromStdString(key), QCryptographicHash::Sha256);
    return QStringLiteral("sandbox-") + QString::fromLatin1(digest.toHex().left(12));
}

QJsonDocument errorDocument(const QString& message) {
    return QJsonDocument(QJsonObject{{QStringLiteral("error"), message}});
}

// The viewer page's files, compiled in from viewer/; the page carries the run's viewer token.
QHttpServerResponse viewerFile(const QString& name, const QByteArray& mimeType,
                               const std::string& viewerToken = {}, bool webrtc = false) {
    QFile file(QStringLiteral(":/velmorand/sandbox/viewer/") + name);
    if (!file.open(QIODevice::ReadOnly)) {
        return errorResponse(QStringLiteral("Missing ") + name, Status::InternalServerError);
    }
    QHttpServerResponse response(
        mimeType,
        file.readAll()
            .replace(QByteArrayLiteral("{{VIEWER_TOKEN}}"), QByteArray::fromStdString(viewerToken))
            .replace(QByteArrayLiteral("{{WEBRTC}}"),
                     webrtc ? QByteArrayLiteral("on") : QByteArrayLiteral("off")));
    // Everything the page needs is served here; nothing may come from elsewhere.
    response.setHeader(QByteArrayLiteral("Content-Security-Policy"),
                       QByteArrayLiteral("default-src 'self'"));
    response.setHeader(QByteArrayLiteral("Cache-Control"), QByteArrayLiteral("no-store"));
    return response;
}

bool isWebSocketUpgrade(const QHttpServerRequest& request) {
    return request.value(QByteArrayLiteral("upgrade")).compare("websocket", Qt::CaseInsensitive) ==
           0;
}

}  // namespace

std::optional<WdaMode> parseWdaMode(std::string_view text) {
    for (auto mode : {WdaMode::normal, WdaMode::error, WdaMode::disabled, WdaMode::slow}) {
        if (wdaModeName(mode) == text) {
            return mode;
        }
    }
    return std::nullopt;
}

std::string_view wdaModeName(WdaMode mode) {
    switch (mode) {
        case WdaMode::normal:
            return "normal";
        case WdaMode::error:
            return "error";
        case WdaMode::disabled:
            return "disabled";
        case WdaMode::slow:
            return "slow";
    }
    return "normal";
}

class Sandbox::Impl {
  public:
    explicit Impl(SandboxOptions options)
        : options_(std::move(options)),
          viewerToken_(randomToken().toStdString()),
          relay_([this](std::string_view token) { return tokens_.find(token) != tokens_.end(); },
                 {viewerToken_, options_.host}, options_.relayPingInterval, options_.webrtc) {
        if (options_.accessKeys.empty()) {
            options_.accessKeys.emplace_back(SandboxOptions::kDemoKey);
        }
        mode_ = options_.wdaMode;
        addRoutes();
        QObject::connect(&service_, &QAbstractHttpServer::newWebSocketConnection, &service_,
                         [this] {
                             while (service_.hasPendingWebSocketConnections()) {
                                 relay_.accept(service_.nextPendingWebSocketConnection());
                             }
                         });
    }

    bool start(std::string* error) {
        auto fail = [error](std::string message) {
            if (error != nullptr) {
                *error = std::move(message);
            }
            return false;
        };
        const QHostAddress address = listenAddress();
        if (address.isNull()) {
            return fail("Not an address to listen on: " + options_.host);
        }
        if (options_.tlsCertificateFile || options_.tlsKeyFile) {
            std::string tlsError;
            if (!setUpTls(&tlsError)) {
                return fail(tlsError);
            }
        }
        port_ = service_.listen(address, options_.port);
        if (port_ == 0) {
            return fail("Cannot listen on " + options_.host + ":" + std::to_string(options_.port));
        }
        wdaPort_ = automation_.listen(address, options_.wdaPort);
        if (wdaPort_ == 0) {
            return fail("Cannot listen on " + options_.host + ":" +
                        std::to_string(options_.wdaPort));
        }
        return true;
    }

    QHostAddress listenAddress() const {
        const QString host = QString::fromStdString(options_.host);
        return host == QLatin1String("localhost") ? QHostAddress(QHostAddress::LocalHost)
                                                  : QHostAddress(host);
    }

    void suspend() {
        for (QTcpServer* server : service_.servers()) {
            server->close();
        }
        relay_.dropAll();
        // Bound but not listening: connections are refused, and no other server on this machine
        // can take the port meanwhile and answer in the sandbox's place.
        portHolder_ = std::make_unique<QTcpSocket>();
        portHolder_->bind(listenAddress(), port_);
    }

    bool resume(std::string* error) {
        portHolder_.reset();
        if (service_.listen(listenAddress(), port_) == port_) {
            return true;
        }
        if (error != nullptr) {
            *error = "Cannot listen on " + options_.host + ":" + std::to_string(port_) + " again";
        }
        return false;
    }

    std::string origin(std::string_view scheme, std::uint16_t port) const {
        const bool ipv6 = options_.host.find(':') != std::string::npos;
        const std::string host = ipv6 ? "[" + options_.host + "]" : options_.host;
        return std::string(scheme) + "://" + host + ":" + std::to_string(port);
    }

    std::string baseUrl() const { return origin(tls_ ? "https" : "http", port_); }
    std::string wdaBaseUrl() const { return origin("http", wdaPort_); }
    std::string relayWsUrl() const { return origin(tls_ ? "wss" : "ws", port_) + "/relay"; }

    SandboxOptions options_;
    const std::string viewerToken_;
    std::uint16_t port_ = 0;
    std::unique_ptr<QTcpSocket> portHolder_;
    std::uint16_t wdaPort_ = 0;
    bool tls_ = false;
    struct Device {
        QString id;
        QString name;
    };
    // Issued tokens and the device each was issued to.
    std::map<std::string, Device, std::less<>> tokens_;
    std::optional<std::string> lastHandshake_;
    WdaMode mode_ = WdaMode::normal;

  private:
    bool setUpTls(std::string* error) {
        if (!options_.tlsCertificateFile || !options_.tlsKeyFile) {
            *error = "TLS needs both a certificate and a key";
            return false;
        }
        const auto certificates = QSslCertificate::fromPath(
            QString::fromStdString(*options_.tlsCertificateFile), QSsl::Pem);
        if (certificates.isEmpty()) {
            *error = "No PEM certificate in " + *options_.tlsCertificateFile;
            return false;
        }
        QFile keyFile(QString::fromStdString(*options_.tlsKeyFile));
        if (!keyFile.open(QIODevice::ReadOnly)) {
            *error = "Cannot read " + *options_.tlsKeyFile;
            return false;
        }
        const QByteArray keyPem = keyFile.readAll();
        QSslKey key(keyPem, QSsl::Rsa);
        if (key.isNull()) {
            key = QSslKey(keyPem, QSsl::Ec);
        }
        if (key.isNull()) {
            *error = "No RSA or EC private key in " + *options_.tlsKeyFile;
            return false;
        }
        service_.sslSetup(certificates.first(), key);
        tls_ = true;
        return true;
    }

    bool isKnownKey(const std::string& key) const {
        for (const auto& known : options_.accessKeys) {
            if (known == key) {
                return true;
            }
        }
        return false;
    }

    void addRoutes() {
        using Method = QHttpServerRequest::Method;
        service_.route(QStringLiteral("/api/agent-handshake"), Method::Post,
                       [this](const QHttpServerRequest& request) { return handshake(request); });
        service_.route(QStringLiteral("/api/agent/wda"), Method::Post,
                       [this](const QHttpServerRequest& request) { return startWda(request); });
        service_.route(QStringLiteral("/api/agent/wda"), Method::Get,
                       [this](const QHttpServerRequest& request, QHttpServerResponder&& responder) {
                           wdaStatus(request, std::move(responder));
                       });
        service_.route(QStringLiteral("/admin/last-handshake"), Method::Get,
                       [this](const QHttpServerRequest& request) {
                           if (auto refused = foreignHost(request)) {
                               return std::move(*refused);
                           }
                           if (!lastHandshake_) {
                               return errorResponse(QStringLiteral("No handshake yet"),
                                                    Status::NotFound);
                           }
                           return QHttpServerResponse(QByteArrayLiteral("application/json"),
                                                      QByteArray::fromStdString(*lastHandshake_));
                       });
        service_.route(QStringLiteral("/admin/wda-mode"), Method::Post,
                       [this](const QHttpServerRequest& request) {
                           auto refused = foreignHost(request);
                           return refused ? std::move(*refused) : switchMode(request);
                       });
        // QHttpServer hands an upgrade over only once a route has taken the request; the route
        // answers nothing itself, then the relay gets the socket.
        for (const auto& path :
             {QStringLiteral("/relay/device"), QStringLiteral("/relay/viewer")}) {
            service_.route(
                path, [](const QHttpServerRequest& request, QHttpServerResponder&& responder) {
                    if (!isWebSocketUpgrade(request)) {
                        responder.write(errorDocument(QStringLiteral("WebSocket upgrade required")),
                                        Status::UpgradeRequired);
                    }
                });
        }
        service_.route(QStringLiteral("/admin/relay"), Method::Get,
                       [this](const QHttpServerRequest& request) {
                           auto refused = foreignHost(request);
                           return refused ? std::move(*refused) : QHttpServerResponse(relayState());
                       });
        service_.route(QStringLiteral("/"), Method::Get, [this](const QHttpServerRequest& request) {
            if (auto refused = foreignHost(request)) {
                return std::move(*refused);
            }
            return viewerFile(QStringLiteral("index.html"),
                              QByteArrayLiteral("text/html; charset=utf-8"), viewerToken_,
                              options_.webrtc);
        });
        service_.route(QStringLiteral("/viewer.js"), Method::Get, [] {
            return viewerFile(QStringLiteral("viewer.js"),
                              QByteArrayLiteral("text/javascript; charset=utf-8"));
        });
        // Browsers ask for an icon by themselves; the page has none, and says so without an error.
        service_.route(QStringLiteral("/favicon.ico"), Method::Get,
                       [] { return QHttpServerResponse(Status::NoContent); });
        service_.route(QStringLiteral("/viewer.css"), Method::Get, [] {
            return viewerFile(QStringLiteral("viewer.css"),
                              QByteArrayLiteral("text/css; charset=utf-8"));
        });
        service_.route(QStringLiteral("/admin/relay/close-device"), Method::Post,
                       [this](const QHttpServerRequest& request) {
                           auto refused = foreignHost(request);
                           return refused ? std::move(*refused) : closeDevice(request);
                       });
        automation_.route(QStringLiteral("/status"), Method::Get, [] {
            return QHttpServerResponse(QJsonObject{
                {QStringLiteral("value"), QJsonObject{{QStringLiteral("ready"), true}}}});
        });
    }

    // The page and the admin routes answer only requests addressed to this sandbox by its own
    // name: a page of another name that resolves here (DNS rebinding) must not read the viewer
    // token or the last access key, nor drive the relay.
    std::optional<QHttpServerResponse> foreignHost(const QHttpServerRequest& request) const {
        if (relay_.isOwnHost(request.value(QByteArrayLiteral("host")))) {
            return std::nullopt;
        }
        return errorResponse(QStringLiteral("Open the sandbox by its own address"),
                             Status::Forbidden);
    }

    QJsonObject relayState() const {
        QJsonObject state{
            {QStringLiteral("deviceConnected"), relay_.deviceConnected()},
            {QStringLiteral("viewers"), static_cast<qint64>(relay_.viewerCount())},
            {QStringLiteral("deviceConnections"), static_cast<qint64>(relay_.deviceConnections())},
            {QStringLiteral("devicePongs"), static_cast<qint64>(relay_.pongs())},
        };
        QJsonArray viewers;
        for (const auto& viewer : relay_.viewerStates()) {
            viewers.append(QJsonObject{
                {QStringLiteral("id"), QString::fromStdString(viewer.id)},
                {QStringLiteral("path"),
                 viewer.peerToPeer ? QStringLiteral("peer-to-peer") : QStringLiteral("relay")},
                {QStringLiteral("framesForwarded"), static_cast<qint64>(viewer.forwarded)},
            });
        }
        state[QStringLiteral("viewerPaths")] = viewers;
        const auto& frames = relay_.frameCounts();
        state[QStringLiteral("frames")] = QJsonObject{
            {QStringLiteral("received"), static_cast<qint64>(frames.received)},
            {QStringLiteral("rejected"), static_cast<qint64>(frames.rejected)},
            {QStringLiteral("forwarded"), static_cast<qint64>(frames.forwarded)},
            {QStringLiteral("missed"), static_cast<qint64>(frames.missed)},
        };
        if (const auto token = relay_.deviceToken()) {
            if (const auto device = tokens_.find(*token); device != tokens_.end()) {
                state[QStringLiteral("device")] =
                    QJsonObject{{QStringLiteral("deviceId"), device->second.id},
                                {QStringLiteral("deviceName"), device->second.name}};
            }
        }
        return state;
    }

    QHttpServerResponse handshake(const QHttpServerRequest& request) {
        lastHandshake_ = request.body().toStdString();
        const auto body = jsonObject(request.body());
        if (!body) {
            return errorResponse(QStringLiteral("Body must be a JSON object"), Status::BadRequest);
        }
        const auto accessKey = body->value(QStringLiteral("accessKey"));
        if (!accessKey.isString()) {
            return errorResponse(QStringLiteral("accessKey must be a string"), Status::BadRequest);
        }
        if (!body->value(QStringLiteral("webrtc")).isBool()) {
            return errorResponse(QStringLiteral("webrtc must be a boolean"), Status::BadRequest);
        }
        if (body->contains(QStringLiteral("preferredRegion")) &&
            !body->value(QStringLiteral("preferredRegion")).isString()) {
            return errorResponse(QStringLiteral("preferredRegion must be a string"),
                                 Status::BadRequest);
        }
        const std::string key = accessKey.toString().toStdString();
        if (!isKnownKey(key)) {
            return errorResponse(QString::fromLatin1(kUnknownKey), Status::Unauthorized);
        }
        const QString token = randomToken();
        const Device device{deviceIdFor(key), QStringLiteral("Sandbox iPhone")};
        tokens_.emplace(token.toStdString(), device);
        return QHttpServerResponse(QJsonObject{
            {QStringLiteral("deviceToken"), token},
            {QStringLiteral("relayWsUrl"), QString::fromStdString(relayWsUrl())},
            {QStringLiteral("deviceId"), device.id},
            {QStringLiteral("deviceName"), device.name},
            {QStringLiteral("webrtcEnabled"),
             options_.webrtc && body->value(QStringLiteral("webrtc")).toBool()},
        });
    }

    QHttpServerResponse startWda(const QHttpServerRequest& request) {
        const auto body = jsonObject(request.body());
        if (!body || !body->value(QStringLiteral("accessKey")).isString()) {
            return errorResponse(QStringLiteral("Body must be a JSON object with an accessKey"),
                                 Status::BadRequest);
        }
        const std::string key = body->value(QStringLiteral("accessKey")).toString().toStdString();
        if (!isKnownKey(key)) {
            return errorResponse(QString::fromLatin1(kUnknownKey), Status::Forbidden);
        }
        startedAt_[key] = Clock::now();
        return QHttpServerResponse(
            QJsonObject{{QStringLiteral("message"), QStringLiteral("Queued (sandbox)")}},
            Status::Accepted);
    }

    void wdaStatus(const QHttpServerRequest& request, QHttpServerResponder&& responder) {
        const QUrlQuery query = request.query();
        if (!query.hasQueryItem(QStringLiteral("accessKey"))) {
            responder.write(errorDocument(QStringLiteral("Missing accessKey")), Status::BadRequest);
            return;
        }
        const std::string key =
            query.queryItemValue(QStringLiteral("accessKey"), QUrl::FullyDecoded).toStdString();
        if (!isKnownKey(key)) {
            responder.write(errorDocument(QString::fromLatin1(kUnknownKey)), Status::Forbidden);
            return;
        }
        QJsonObject answer{{QStringLiteral("enabled"), true}};
        switch (mode_) {
            case WdaMode::disabled:
                answer[QStringLiteral("enabled")] = false;
                break;
            case WdaMode::error:
                answer[QStringLiteral("wdaStatus")] = QStringLiteral("error");
                answer[QStringLiteral("wdaDetail")] = QStringLiteral("Sandbox says no");
                break;
            case WdaMode::normal:
            case WdaMode::slow:
                answer[QStringLiteral("wdaStatus")] = startupState(key);
                break;
        }
        if (mode_ != WdaMode::slow) {
            responder.write(QJsonDocument(answer));
            return;
        }
        // Held open without blocking the loop. A caller may give up first: its socket is then
        // gone, and the late answer is dropped.
        auto held = std::make_shared<QHttpServerResponder>(std::move(responder));
        QPointer<QTcpSocket> socket = held->socket();
        QTimer::singleShot(options_.slowDelay, &timers_, [held, socket, answer] {
            if (socket != nullptr && socket->state() == QAbstractSocket::ConnectedState) {
                held->write(QJsonDocument(answer));
            }
        });
    }

    QString startupState(const std::string& key) const {
        const auto started = startedAt_.find(key);
        if (started == startedAt_.end()) {
            return QStringLiteral("idle");
        }
        return Clock::now() - started->second < options_.wdaStartupTime ? QStringLiteral("starting")
                                                                        : QStringLiteral("active");
    }

    QHttpServerResponse switchMode(const QHttpServerRequest& request) {
        QByteArray name = request.body().trimmed();
        if (const auto body = jsonObject(request.body())) {
            name = body->value(QStringLiteral("mode")).toString().toUtf8();
        }
        const auto mode = parseWdaMode(name.toStdString());
        if (!mode) {
            return errorResponse(QStringLiteral("Mode must be normal, error, disabled or slow"),
                                 Status::BadRequest);
        }
        mode_ = *mode;
        return QHttpServerResponse(
            QJsonObject{{QStringLiteral("wdaMode"), QString::fromUtf8(name)}});
    }

    // {"code":N,"reason":S}; code 1000 and an empty reason when absent.
    QHttpServerResponse closeDevice(const QHttpServerRequest& request) {
        const auto body = jsonObject(request.body()).value_or(QJsonObject{});
        const int code = body.value(QStringLiteral("code")).toInt(1000);
        if (code < 1000 || code > 4999) {
            return errorResponse(QStringLiteral("code must be from 1000 to 4999"),
                                 Status::BadRequest);
        }
        if (!relay_.closeDevice(code, body.value(QStringLiteral("reason")).toString())) {
            return errorResponse(QStringLiteral("No device connected"), Status::NotFound);
        }
        return QHttpServerResponse(QJsonObject{{QStringLiteral("closed"), code}});
    }

    std::map<std::string, Clock::time_point, std::less<>> startedAt_;
    QHttpServer service_;
    QHttpServer automation_;
    // Destroyed before the servers, so that no deferred answer outlives them.
    QObject timers_;

  public:
    // Declared after the service, which hands it sockets: destroyed first.
    SandboxRelay relay_;
};

Sandbox::Sandbox(SandboxOptions options) : impl_(std::make_unique<Impl>(std::move(options))) {}

Sandbox::~Sandbox() = default;

bool Sandbox::start(std::string* error) {
    return impl_->start(error);
}

std::string Sandbox::baseUrl() const {
    return impl_->baseUrl();
}

std::string Sandbox::wdaBaseUrl() const {
    return impl_->wdaBaseUrl();
}

std::uint16_t Sandbox::port() const {
    return impl_->port_;
}

std::uint16_t Sandbox::wdaPort() const {
    return impl_->wdaPort_;
}

const std::vector<std::string>& Sandbox::accessKeys() const {
    return impl_->options_.accessKeys;
}

bool Sandbox::isIssuedToken(std::string_view token) const {
    return impl_->tokens_.find(token) != impl_->tokens_.end();
}

std::optional<std::string> Sandbox::lastHandshakeBody() const {
    return impl_->lastHandshake_;
}

WdaMode Sandbox::wdaMode() const {
    return impl_->mode_;
}

void Sandbox::setWdaMode(WdaMode mode) {
    impl_->mode_ = mode;
}

const std::string& Sandbox::viewerToken() const {
    return impl_->viewerToken_;
}

std::string Sandbox::relayWsUrl() const {
    return impl_->relayWsUrl();
}

bool Sandbox::deviceConnected() const {
    return impl_->relay_.deviceConnected();
}

std::size_t Sandbox::viewerCount() const {
    return impl_->relay_.viewerCount();
}

std::size_t Sandbox::deviceConnections() const {
    return impl_->relay_.deviceConnections();
}

std::size_t Sandbox::devicePongs() const {
    return impl_->relay_.pongs();
}

std::optional<std::string> Sandbox::lastDeviceToken() const {
    return impl_->relay_.lastDeviceToken();
}

bool Sandbox::closeDevice(int code, std::string_view reason) {
    return impl_->relay_.closeDevice(
        code, QString::fromUtf8(reason.data(), static_cast<qsizetype>(reason.size())));
}

bool Sandbox::sendToDevice(std::string_view payload, bool binary) {
    return impl_->relay_.sendToDevice(
        QByteArray(payload.data(), static_cast<qsizetype>(payload.size())), binary);
}

void Sandbox::suspend() {
    impl_->suspend();
}

bool Sandbox::resume(std::string* error) {
    return impl_->resume(error);
}

}  // namespace velmorand::sandbox
