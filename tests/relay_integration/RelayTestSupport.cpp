#include "RelayTestSupport.h"

#include <gtest/gtest.h>

#include <QSslConfiguration>
#include <nlohmann/json.hpp>

#include "velmorand/qt/QtHttpClient.h"
#include "velmorand/qt/QtMainQueue.h"

namespace velmorand::testing {

RelayBench::RelayBench(bool tls) {
    sandbox::SandboxOptions options;
    if (tls) {
        options.tlsCertificateFile = testPki().serverCertificate.string();
        options.tlsKeyFile = testPki().serverKey.string();
        caFile.emplace("VELMORAND_CA_FILE", testPki().caCertificate.c_str());
    }
    sandbox = std::make_unique<sandbox::Sandbox>(std::move(options));
    std::string error;
    if (!sandbox->start(&error)) {
        ADD_FAILURE() << error;
        return;
    }
    // The HTTP client reads the CA file when it is made.
    QtMainQueue mainQueue;
    QtHttpClient http(mainQueue);
    HttpRequest request;
    request.method = "POST";
    request.url = sandbox->baseUrl() + "/api/agent-handshake";
    request.body = R"({"accessKey":"demo-key-1234","webrtc":false})";
    const auto outcome = sendAndWait(http, request);
    const auto* response = std::get_if<HttpResponse>(&outcome);
    if (response == nullptr || response->statusCode != 200) {
        ADD_FAILURE() << "handshake failed";
        return;
    }
    const auto body = nlohmann::json::parse(response->body.value_or("{}"));
    pairing.deviceToken = body.at("deviceToken").get<std::string>();
    pairing.relayWsUrl = body.at("relayWsUrl").get<std::string>();
}

Viewer::Viewer(const std::string& relayWsUrl) {
    if (qEnvironmentVariableIsSet("VELMORAND_CA_FILE")) {
        QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
        tls.addCaCertificates(qEnvironmentVariable("VELMORAND_CA_FILE"));
        socket_.setSslConfiguration(tls);
    }
    QObject::connect(&socket_, &QWebSocket::textMessageReceived, &socket_,
                     [this](const QString& text) { received_.push_back(text.toStdString()); });
    socket_.open(QUrl(QString::fromStdString(relayWsUrl + "/viewer")));
    EXPECT_TRUE(pumpUntil([this] { return socket_.state() == QAbstractSocket::ConnectedState; }))
        << "viewer could not connect: " << socket_.errorString().toStdString();
}

void Viewer::send(const std::string& frame) {
    socket_.sendTextMessage(QString::fromStdString(frame));
}

std::optional<std::string> Viewer::next() {
    if (!pumpUntil([this] { return received_.size() > taken_; })) {
        return std::nullopt;
    }
    return received_[taken_++];
}

}  // namespace velmorand::testing
