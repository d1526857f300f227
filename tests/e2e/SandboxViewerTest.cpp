// What the viewer page relies on from the sandbox, in process: its files, the device it lists, and
// pongs that reach the viewer that pinged.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QWebSocket>
#include <algorithm>
#include <chrono>
#include <functional>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "velmorand/sandbox/Sandbox.h"

namespace velmorand::sandbox {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

bool waitUntil(const std::function<bool()>& done, std::chrono::milliseconds limit = 10s) {
    QElapsedTimer timer;
    timer.start();
    while (!done()) {
        if (timer.elapsed() > limit.count()) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::AllEvents, 20);
    }
    return true;
}

struct Reply {
    int status = 0;
    std::string contentType;
    std::string policy;
    std::string body;
};

class SandboxViewerTest : public ::testing::Test {
  protected:
    void start(std::chrono::milliseconds pingInterval = 0ms) {
        SandboxOptions options;
        options.relayPingInterval = pingInterval;
        sandbox_ = std::make_unique<Sandbox>(options);
        std::string error;
        ASSERT_TRUE(sandbox_->start(&error)) << error;
    }

    Reply call(const std::string& path, const std::optional<std::string>& postBody = {}) {
        QNetworkRequest request(QUrl(QString::fromStdString(sandbox_->baseUrl() + path)));
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        QNetworkReply* reply = postBody
                                   ? network_.post(request, QByteArray::fromStdString(*postBody))
                                   : network_.get(request);
        std::unique_ptr<QNetworkReply> owned(reply);
        if (!waitUntil([reply] { return reply->isFinished(); })) {
            ADD_FAILURE() << "no answer to " << path;
            return {};
        }
        return {reply->attribute(QNetworkRequest::HttpStatusCodeAttribute).toInt(),
                reply->header(QNetworkRequest::ContentTypeHeader).toString().toStdString(),
                reply->rawHeader("Content-Security-Policy").toStdString(),
                reply->readAll().toStdString()};
    }

    json relayState() { return json::parse(call("/admin/relay").body); }

    // Pairs, then links a device that answers pings as the extension does.
    json connectDevice() {
        const auto handshake = json::parse(
            call("/api/agent-handshake", R"({"accessKey":"demo-key-1234","webrtc":false})").body);
        QNetworkRequest request(QUrl(QString::fromStdString(sandbox_->relayWsUrl() + "/device")));
        request.setRawHeader("x-device-token", QByteArray::fromStdString(
                                                   handshake.at("deviceToken").get<std::string>()));
        QObject::connect(&device_, &QWebSocket::textMessageReceived, [this](const QString& text) {
            if (json::parse(text.toStdString(), nullptr, false).value("type", "") == "ping") {
                device_.sendTextMessage(QStringLiteral(R"({"type":"pong"})"));
            }
        });
        device_.open(request);
        EXPECT_TRUE(waitUntil([this] { return sandbox_->deviceConnected(); }));
        return handshake;
    }

    void openViewer() {
        QObject::connect(&viewer_, &QWebSocket::textMessageReceived,
                         [this](const QString& text) { received_.push_back(text.toStdString()); });
        viewer_.open(QUrl(QString::fromStdString(sandbox_->relayWsUrl() + "/viewer")));
        ASSERT_TRUE(waitUntil([this] { return sandbox_->viewerCount() == 1; }));
    }

    std::size_t pongsReceived() const {
        return static_cast<std::size_t>(
            std::count(received_.begin(), received_.end(), std::string(R"({"type":"pong"})")));
    }

    QNetworkAccessManager network_;
    std::unique_ptr<Sandbox> sandbox_;
    QWebSocket device_;
    QWebSocket viewer_;
    std::vector<std::string> received_;
};

TEST_F(SandboxViewerTest, ServesThePageAndItsFilesUnderAPolicyThatKeepsThemLocal) {
    start();
    struct File {
        std::string path;
        std::string contentType;
        std::string mark;
    };
    for (const auto& file : std::vector<File>{
             {"/", "text/html; charset=utf-8", R"(<script src="/viewer.js")"},
             {"/viewer.js", "text/javascript; charset=utf-8", "/relay/viewer"},
             {"/viewer.css", "text/css; charset=utf-8", "#frames"},
         }) {
        SCOPED_TRACE(file.path);
        const auto reply = call(file.path);
        EXPECT_EQ(reply.status, 200);
        EXPECT_EQ(reply.contentType, file.contentType);
        EXPECT_EQ(reply.policy, "default-src 'self'");
        EXPECT_NE(reply.body.find(file.mark), std::string::npos);
    }
    EXPECT_EQ(call("/viewer.html").status, 404);
}

TEST_F(SandboxViewerTest, AdminRelayNamesTheConnectedDeviceOnlyWhileItIsConnected) {
    start();
    auto state = relayState();
    EXPECT_EQ(state.at("deviceConnected"), false);
    EXPECT_FALSE(state.contains("device"));

    const auto handshake = connectDevice();
    state = relayState();
    EXPECT_EQ(state.at("deviceConnected"), true);
    EXPECT_EQ(state.at("device"),
              (json{{"deviceId", handshake.at("deviceId")}, {"deviceName", "Sandbox iPhone"}}));

    device_.close();
    ASSERT_TRUE(waitUntil([this] { return !sandbox_->deviceConnected(); }));
    EXPECT_FALSE(relayState().contains("device"));
}

TEST_F(SandboxViewerTest, ForwardsThePongsThatAnswerViewerPingsAndKeepsItsOwn) {
    start(20ms);
    connectDevice();
    openViewer();
    // However written, a ping is a ping to the device.
    viewer_.sendTextMessage(QStringLiteral(R"({"type":"ping"})"));
    viewer_.sendTextMessage(QStringLiteral(R"({ "type": "ping", "t": 1 })"));
    ASSERT_TRUE(waitUntil([this] { return pongsReceived() == 2; }));
    // Many relay pings later, none of their pongs has reached the viewer.
    const auto pongs = sandbox_->devicePongs();
    ASSERT_TRUE(waitUntil([&] { return sandbox_->devicePongs() >= pongs + 10; }));
    EXPECT_EQ(pongsReceived(), 2u);
    EXPECT_EQ(received_.size(), 2u);
}

}  // namespace
}  // namespace velmorand::sandbox

int main(int argc, char** argv) {
    // Every wait above turns this thread's event loop.
    QCoreApplication app(argc, argv);
    ::testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
