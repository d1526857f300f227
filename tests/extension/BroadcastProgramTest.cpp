// velmorand-broadcast as the application starts it, against the sandbox's relay over loopback.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <QWebSocket>
#include <chrono>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>

#include "TempDir.h"
#include "velmorand/config/AppGroup.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/desktop/DataRoot.h"
#include "velmorand/desktop/DesktopBundle.h"
#include "velmorand/desktop/DesktopSettingsStores.h"
#include "velmorand/desktop/PlistKeychain.h"
#include "velmorand/sandbox/Sandbox.h"
#include "velmorand/ui/BroadcastExtension.h"

namespace velmorand {
namespace {

using namespace std::chrono_literals;

// Runs the event loop until `done` holds; false when `limit` passed first.
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

class BroadcastProgramTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sandbox::SandboxOptions options;
        // The test pings by hand, so that it counts the answers.
        options.relayPingInterval = 0ms;
        sandbox_ = std::make_unique<sandbox::Sandbox>(options);
        std::string error;
        ASSERT_TRUE(sandbox_->start(&error)) << error;
    }

    void TearDown() override {
        for (auto& process : processes_) {
            if (process->state() != QProcess::NotRunning) {
                process->kill();
                process->waitForFinished(5000);
            }
        }
    }

    std::string extensionLog() const {
        std::ostringstream text;
        text << std::ifstream(DataRoot(data_.path()).groupContainerDirectory() / "extension.log",
                              std::ios::binary)
                    .rdbuf();
        return text.str();
    }

    bool logHas(const std::string& text) const {
        return extensionLog().find(text) != std::string::npos;
    }

    // Runs `use` on a SharedConfig over the same desktop stores the program reads, as the app does.
    template <typename Use>
    auto withConfig(Use use) {
        const DataRoot root(data_.path());
        DesktopBundle bundle(VELMORAND_DEV_BUNDLE);
        DesktopSettingsStores stores(root);
        PlistKeychain keychain(root.keychainFile(), bundle.resource("embedded", "mobileprovision"));
        AppGroup group(bundle);
        SharedConfig config(stores, keychain, group);
        return use(config);
    }
    SharedConfig::Values load() {
        return withConfig([](SharedConfig& config) { return config.load(); });
    }
    void persist(const SharedConfig::Values& values) {
        withConfig([&](SharedConfig& config) { config.persist(values); });
    }

    // A real handshake with the sandbox, stored as the pairing flow stores it.
    void pair() {
        QNetworkAccessManager network;
        QNetworkRequest request(
            QUrl(QString::fromStdString(sandbox_->baseUrl() + "/api/agent-handshake")));
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        const auto body =
            nlohmann::json{{"accessKey", sandbox::SandboxOptions::kDemoKey}, {"webrtc", false}};
        QNetworkReply* reply = network.post(request, QByteArray::fromStdString(body.dump()));
        ASSERT_TRUE(waitUntil([reply] { return reply->isFinished(); }));
        const auto answer = nlohmann::json::parse(reply->readAll().toStdString());
        reply->deleteLater();
        token_ = answer.at("deviceToken").get<std::string>();
        const HandshakeResult result{token_, answer.at("relayWsUrl"), answer.at("deviceId"),
                                     answer.at("deviceName"), false};
        withConfig([&](SharedConfig& config) {
            config.save(std::string(sandbox::SandboxOptions::kDemoKey), sandbox_->baseUrl(),
                        result);
        });
        auto values = load();
        values.fps = 12;
        persist(values);
    }

    // Started as the application starts it: by the path its lookup finds, with the data root.
    QProcess& start() {
        auto process = std::make_unique<QProcess>();
        process->start(VELMORAND_BROADCAST,
                       {"--data-dir", QString::fromStdString(data_.path()), "--min-delay", "0.05",
                        "--max-delay", "0.2", "--jitter", "0.01"});
        EXPECT_TRUE(process->waitForStarted(5000));
        processes_.push_back(std::move(process));
        return *processes_.back();
    }

    // Exit status once it has ended by itself; -1 when it is still running or crashed.
    int finished(QProcess& process, std::chrono::milliseconds limit = 10s) {
        if (!waitUntil([&] { return process.state() == QProcess::NotRunning; }, limit)) {
            return -1;
        }
        return process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    void connected() {
        ASSERT_TRUE(waitUntil([this] { return sandbox_->deviceConnected(); })) << extensionLog();
        EXPECT_EQ(sandbox_->lastDeviceToken(), token_);
    }

    testing::TempDir data_;
    std::unique_ptr<sandbox::Sandbox> sandbox_;
    std::vector<std::unique_ptr<QProcess>> processes_;
    std::string token_;
};

TEST_F(BroadcastProgramTest, TheAppsLookupFindsTheProgramWhichRefusesToStartUnpaired) {
    const DesktopBundle bundle(VELMORAND_DEV_BUNDLE);
    EXPECT_EQ(BroadcastExtension::bundleIdentifier(bundle), "co.velmorand.connect.broadcast");
    EXPECT_EQ(BroadcastExtension::executable(bundle), std::filesystem::path(VELMORAND_BROADCAST));
    auto& process = start();
    EXPECT_EQ(finished(process), 1);
    EXPECT_TRUE(logHas("not paired — pair this device in Velmorand Connect first"))
        << extensionLog();
    EXPECT_EQ(sandbox_->deviceConnections(), 0u);
}

TEST_F(BroadcastProgramTest, ServesTheRelayLogsViewersAndStopsOnSigterm) {
    pair();
    auto& process = start();
    connected();
    EXPECT_TRUE(waitUntil([this] {
        return logHas("encode: jpeg, 12 fps, quality 40%, scale 50%");
    })) << extensionLog();
    EXPECT_TRUE(logHas("relay: " + sandbox_->relayWsUrl() + "/device (from pairing)"));

    ASSERT_TRUE(sandbox_->sendToDevice(R"({"type":"ping"})"));
    EXPECT_TRUE(waitUntil([this] { return sandbox_->devicePongs() == 1; }));

    // A viewer's probe is answered to it; its commands land in the log.
    QWebSocket viewer;
    std::vector<nlohmann::json> answers;
    QObject::connect(&viewer, &QWebSocket::textMessageReceived, [&answers](const QString& text) {
        answers.push_back(nlohmann::json::parse(text.toStdString()));
    });
    viewer.open(QUrl(QString::fromStdString(sandbox_->relayWsUrl() + "/viewer")));
    ASSERT_TRUE(waitUntil([&] { return viewer.state() == QAbstractSocket::ConnectedState; }));
    viewer.sendTextMessage(QStringLiteral(R"({"type":"latency_ping","t":1234,"viewerId":"v9"})"));
    viewer.sendTextMessage(QStringLiteral(R"({"type":"tap","x":120,"y":45.5})"));
    viewer.sendTextMessage(QStringLiteral(R"({"type":"need_stream","prefer":"jpeg"})"));
    ASSERT_TRUE(waitUntil([&] { return !answers.empty(); }));
    EXPECT_EQ(answers[0]["type"], "latency_pong");
    EXPECT_EQ(answers[0]["t"], 1234);
    EXPECT_EQ(answers[0]["viewerId"], "v9");
    EXPECT_TRUE(waitUntil([this] {
        return logHas("control: tap x=120 y=45.5") &&
               logHas("capturing and encoding the screen is not part of this desktop build");
    })) << extensionLog();

    // Only one broadcast at a time.
    auto& second = start();
    EXPECT_EQ(finished(second), 1);
    const std::string refusal =
        "a broadcast is already running (pid " + std::to_string(process.processId()) + ")";
    EXPECT_NE(second.readAllStandardError().toStdString().find(refusal), std::string::npos);
    EXPECT_TRUE(logHas(refusal));
    EXPECT_EQ(process.state(), QProcess::Running);

    process.terminate();
    EXPECT_EQ(finished(process), 0);
    EXPECT_TRUE(logHas("stopped (SIGTERM)"));
    EXPECT_TRUE(waitUntil([this] { return !sandbox_->deviceConnected(); }));

    const auto log = extensionLog();
    EXPECT_EQ(log.find(token_), std::string::npos);
    EXPECT_EQ(log.find(sandbox::SandboxOptions::kDemoKey), std::string::npos);
}

TEST_F(BroadcastProgramTest, CustomRelayUrlWins) {
    pair();
    auto values = load();
    values.relayWsUrl = "ws://127.0.0.1:1/nowhere";
    values.relayOverride = "  " + sandbox_->relayWsUrl() + " ";
    persist(values);
    auto& process = start();
    connected();
    EXPECT_TRUE(logHas("relay: " + sandbox_->relayWsUrl() + "/device (custom URL)"));
    process.terminate();
    EXPECT_EQ(finished(process), 0);
}

TEST_F(BroadcastProgramTest, ATokenRejectedMidSessionEndsTheBroadcast) {
    pair();
    auto& process = start();
    connected();
    ASSERT_TRUE(sandbox_->closeDevice(4401, "unauthorized"));
    EXPECT_EQ(finished(process), 1);
    EXPECT_EQ(sandbox_->deviceConnections(), 1u);  // it did not come back with the refused token
}

TEST_F(BroadcastProgramTest, ATokenTheRelayNeverIssuedIsRejectedAtOnce) {
    pair();
    auto values = load();
    values.deviceToken = "forged-token-0000";
    persist(values);
    token_ = "forged-token-0000";
    auto& process = start();
    EXPECT_EQ(finished(process), 1);
    EXPECT_EQ(sandbox_->lastDeviceToken(), token_);
    EXPECT_TRUE(logHas("[relay-client] closed code=4401"));
    EXPECT_TRUE(logHas("relay rejected the device token — re-pair this device")) << extensionLog();
    EXPECT_FALSE(logHas(token_));
    // The lock went with the process: the next start gets as far as the relay again.
    auto& next = start();
    EXPECT_EQ(finished(next), 1);
    EXPECT_FALSE(logHas("already running"));
}

}  // namespace
}  // namespace velmorand
