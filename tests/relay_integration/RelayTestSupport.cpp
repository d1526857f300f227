#include "RelayTestSupport.h"

#include <gtest/gtest.h>

#include <QSslConfiguration>
#include <nlohmann/json.hpp>

#include "velmorand/qt/QtHttpClient.h"
#include "velmorand/qt/QtMainQueue.h"

namespace velmorand::testing {

using namespace std::chrono_literals;

RelayBench::RelayBench(bool tls, std::chrono::milliseconds pingInterval) : tls_(tls) {
    sandbox::SandboxOptions options;
    options.relayPingInterval = pingInterval;
    if (tls) {
        const auto& pki = testPki();
        options.tlsCertificateFile = pki.serverCertificate.string();
        options.tlsKeyFile = pki.serverKey.string();
        caFile_.emplace("VELMORAND_CA_FILE", pki.caCertificate.string());
    }
    sandbox_ = std::make_unique<sandbox::Sandbox>(std::move(options));
    std::string error;
    if (!sandbox_->start(&error)) {
        ADD_FAILURE() << error;
        return;
    }
    // The HTTP client reads the CA file when it is made.
    QtMainQueue mainQueue;
    QtHttpClient http(mainQueue);
    HttpRequest request;
    request.method = "POST";
    request.url = sandbox_->baseUrl() + "/api/agent-handshake";
    request.body = R"({"accessKey":"demo-key-1234","webrtc":false})";
    const auto outcome = sendAndWait(http, request);
    const auto* response = std::get_if<HttpResponse>(&outcome);
    if (response == nullptr || response->statusCode != 200) {
        ADD_FAILURE() << "handshake failed";
        return;
    }
    const auto body = nlohmann::json::parse(response->body.value_or("{}"));
    pairing_.deviceToken = body.at("deviceToken").get<std::string>();
    pairing_.relayWsUrl = body.at("relayWsUrl").get<std::string>();
    pairing_.deviceId = body.at("deviceId").get<std::string>();
    pairing_.deviceName = body.at("deviceName").get<std::string>();
}

RelayBench::~RelayBench() = default;

Viewer::Viewer(const std::string& relayWsUrl) {
    if (qEnvironmentVariableIsSet("VELMORAND_CA_FILE")) {
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.addCaCertificates(qEnvironmentVariable("VELMORAND_CA_FILE"));
        socket_.setSslConfiguration(tls);
    }
    QObject::connect(&socket_, &QWebSocket::textMessageReceived, &socket_,
                     [this](const QString& text) { received_.push_back(text.toStdString()); });
    QObject::connect(&socket_, &QWebSocket::binaryMessageReceived, &socket_,
                     [this](const QByteArray& bytes) { received_.push_back(bytes.toStdString()); });
    socket_.open(QUrl(QString::fromStdString(relayWsUrl + "/viewer")));
    if (!pumpUntil([this] { return socket_.state() == QAbstractSocket::ConnectedState; })) {
        ADD_FAILURE() << "viewer could not connect: " << socket_.errorString().toStdString();
    }
}

void Viewer::sendText(const std::string& text) {
    socket_.sendTextMessage(QString::fromStdString(text));
}

void Viewer::sendBinary(const std::string& bytes) {
    socket_.sendBinaryMessage(QByteArray::fromStdString(bytes));
}

std::optional<std::string> Viewer::next(std::chrono::milliseconds limit) {
    if (!pumpUntil([this] { return received_.size() > taken_; }, limit)) {
        return std::nullopt;
    }
    return received_[taken_++];
}

}  // namespace velmorand::testing
