// What the viewer page relies on from the sandbox that the browser run cannot see: the policy on
// every file it serves, and relay pongs kept from viewers.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QWebSocket>
#include <algorithm>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "velmorand/sandbox/Sandbox.h"

namespace velmorand::sandbox {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

bool waitUntil(const std::function<bool()>& done) {
    QElapsedTimer timer;
    timer.start();
    while (!done() && timer.elapsed() < 10'000) {
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return done();
}

class SandboxViewerTest : public ::testing::Test {
  protected:
    void start(std::chrono::milliseconds pingInterval = 0ms) {
        SandboxOptions options;
        options.relayPingInterval = pingInterval;
        sandbox_ = std::make_unique<Sandbox>(options);
        std::string error;
        ASSERT_TRUE(sandbox_->start(&error)) << error;
    }

    // The finished reply to a GET, or to a POST of `body`.
    std::unique_ptr<QNetworkReply> call(const std::string& path, const QByteArray& body = {}) {
        QNetworkRequest request(QUrl(QString::fromStdString(sandbox_->baseUrl() + path)));
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        std::unique_ptr<QNetworkReply> reply(body.isEmpty() ? network_.get(request)
                                                            : network_.post(request, body));
        EXPECT_TRUE(waitUntil([&reply] { return reply->isFinished(); })) << path;
        return reply;
    }

    QNetworkAccessManager network_;
    std::unique_ptr<Sandbox> sandbox_;
};

TEST_F(SandboxViewerTest, ServesThePageAndItsFilesUnderAPolicyThatKeepsThemLocal) {
    start();
    const std::vector<std::tuple<std::string, std::string, std::string>> files = {
        {"/", "text/html; charset=utf-8", R"(<script src="/viewer.js")"},
        {"/viewer.js", "text/javascript; charset=utf-8", "/relay/viewer"},
        {"/viewer.css", "text/css; charset=utf-8", "#frames"},
    };
    for (const auto& [path, contentType, mark] : files) {
        SCOPED_TRACE(path);
        const auto reply = call(path);
        EXPECT_EQ(reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(), 200);
        EXPECT_EQ(reply->header(QNetworkRequest::ContentTypeHeader).toString().toStdString(),
                  contentType);
        EXPECT_EQ(reply->rawHeader("Content-Security-Policy"), "default-src 'self'");
        EXPECT_TRUE(reply->readAll().contains(QByteArray::fromStdString(mark)));
    }
    EXPECT_EQ(call("/viewer.html")->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(),
              404);
}

TEST_F(SandboxViewerTest, ForwardsThePongsThatAnswerViewerPingsAndKeepsItsOwn) {
    start(20ms);
    const auto handshake =
        json::parse(call("/api/agent-handshake", R"({"accessKey":"demo-key-1234","webrtc":false})")
                        ->readAll()
                        .toStdString());
    // A device that answers pings as the extension does.
    QWebSocket device;
    QObject::connect(&device, &QWebSocket::textMessageReceived, [&device](const QString& text) {
        if (json::parse(text.toStdString(), nullptr, false).value("type", "") == "ping") {
            device.sendTextMessage(QStringLiteral(R"({"type":"pong"})"));
        }
    });
    QNetworkRequest request(QUrl(QString::fromStdString(sandbox_->relayWsUrl() + "/device")));
    request.setRawHeader("x-device-token",
                         QByteArray::fromStdString(handshake.at("deviceToken").get<std::string>()));
    device.open(request);
    ASSERT_TRUE(waitUntil([this] { return sandbox_->deviceConnected(); }));

    std::vector<std::string> received;
    QWebSocket viewer;
    QObject::connect(&viewer, &QWebSocket::textMessageReceived,
                     [&received](const QString& text) { received.push_back(text.toStdString()); });
    viewer.open(QUrl(QString::fromStdString(sandbox_->relayWsUrl() + "/viewer")));
    ASSERT_TRUE(waitUntil([this] { return sandbox_->viewerCount() == 1; }));
    // However written, a ping is a ping to the device.
    viewer.sendTextMessage(QStringLiteral(R"({"type":"ping"})"));
    viewer.sendTextMessage(QStringLiteral(R"({ "type": "ping", "t": 1 })"));
    ASSERT_TRUE(waitUntil([&received] { return received.size() == 2; }));
    // Many relay pings later, none of their pongs has reached the viewer.
    const auto pongs = sandbox_->devicePongs();
    ASSERT_TRUE(waitUntil([&] { return sandbox_->devicePongs() >= pongs + 10; }));
    EXPECT_EQ(received, std::vector<std::string>(2, R"({"type":"pong"})"));
}

}  // namespace
}  // namespace velmorand::sandbox

int main(int argc, char** argv) {
    // Every wait above turns this thread's event loop.
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
