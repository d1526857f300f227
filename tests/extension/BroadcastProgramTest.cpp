// velmorand-broadcast as the application starts it, against the sandbox's relay over loopback: what
// the browser run does not reach.
#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QProcess>
#include <chrono>
#include <fstream>
#include <functional>
#include <nlohmann/json.hpp>
#include <sstream>

#include "QtTestSupport.h"
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

using testing::pumpUntil;

class BroadcastProgramTest : public ::testing::Test {
  protected:
    void SetUp() override {
        sandbox_ = std::make_unique<sandbox::Sandbox>(sandbox::SandboxOptions{});
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

    // A real handshake with the sandbox, stored as the pairing flow stores it over the desktop
    // stores the program reads, then `adjust`ed.
    void pair(const std::function<void(SharedConfig::Values&)>& adjust = {}) {
        QNetworkAccessManager network;
        QNetworkRequest request(
            QUrl(QString::fromStdString(sandbox_->baseUrl() + "/api/agent-handshake")));
        request.setHeader(QNetworkRequest::ContentTypeHeader, "application/json");
        const auto body =
            nlohmann::json{{"accessKey", sandbox::SandboxOptions::kDemoKey}, {"webrtc", false}};
        std::unique_ptr<QNetworkReply> reply(
            network.post(request, QByteArray::fromStdString(body.dump())));
        ASSERT_TRUE(pumpUntil([&reply] { return reply->isFinished(); }));
        const auto answer = nlohmann::json::parse(reply->readAll().toStdString());
        token_ = answer.at("deviceToken").get<std::string>();
        const DataRoot root(data_.path());
        DesktopBundle bundle(VELMORAND_DEV_BUNDLE);
        DesktopSettingsStores stores(root);
        PlistKeychain keychain(root.keychainFile(), bundle.resource("embedded", "mobileprovision"));
        AppGroup group(bundle);
        SharedConfig config(stores, keychain, group);
        config.save(std::string(sandbox::SandboxOptions::kDemoKey), sandbox_->baseUrl(),
                    {token_, answer.at("relayWsUrl"), answer.at("deviceId"),
                     answer.at("deviceName"), false});
        if (adjust) {
            auto values = config.load();
            adjust(values);
            config.persist(values);
        }
    }

    // Started as the application starts it: by the path its lookup finds, with the data root, on
    // a desktop without X11.
    QProcess& start() {
        auto process = std::make_unique<QProcess>();
        auto environment = QProcessEnvironment::systemEnvironment();
        environment.remove("DISPLAY");
        environment.insert("WAYLAND_DISPLAY", "wayland-0");
        process->setProcessEnvironment(environment);
        const DesktopBundle bundle(VELMORAND_DEV_BUNDLE);
        process->start(
            QString::fromStdString(BroadcastExtension::executable(bundle).value_or("").string()),
            {"--data-dir", QString::fromStdString(data_.path()), "--min-delay", "0.05",
             "--max-delay", "0.2", "--jitter", "0.01"});
        EXPECT_TRUE(process->waitForStarted(5000));
        processes_.push_back(std::move(process));
        return *processes_.back();
    }

    // Exit status once it has ended by itself; -1 when it is still running or crashed.
    int finished(QProcess& process) {
        const bool ended = pumpUntil([&] { return process.state() == QProcess::NotRunning; });
        return ended && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    void connected() {
        ASSERT_TRUE(pumpUntil([this] { return sandbox_->deviceConnected(); })) << extensionLog();
        EXPECT_EQ(sandbox_->lastDeviceToken(), token_);
    }

    testing::TempDir data_;
    std::unique_ptr<sandbox::Sandbox> sandbox_;
    std::vector<std::unique_ptr<QProcess>> processes_;
    std::string token_;
};

TEST(BroadcastProgramLookup, TheAppsLookupFindsTheBuiltProgram) {
    const DesktopBundle bundle(VELMORAND_DEV_BUNDLE);
    EXPECT_EQ(BroadcastExtension::bundleIdentifier(bundle), "co.velmorand.connect.broadcast");
    EXPECT_EQ(BroadcastExtension::executable(bundle), std::filesystem::path(VELMORAND_BROADCAST));
}

TEST_F(BroadcastProgramTest, ASecondStartIsRefusedWithTheFirstOnesPidAndNoSecretIsLogged) {
    pair();
    auto& first = start();
    connected();
    auto& second = start();
    EXPECT_EQ(finished(second), 1);
    const std::string refusal =
        "a broadcast is already running (pid " + std::to_string(first.processId()) + ")";
    EXPECT_NE(second.readAllStandardError().toStdString().find(refusal), std::string::npos);
    EXPECT_TRUE(logHas(refusal)) << extensionLog();
    EXPECT_EQ(first.state(), QProcess::Running);
    EXPECT_EQ(sandbox_->deviceConnections(), 1u);

    // Without X11 there is no picture, said once, and the link stays up: probes are answered.
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(sandbox_->sendToDevice(R"({"type":"need_stream","prefer":"jpeg"})"));
    }
    const std::string noPicture =
        "stream: screen capture needs an X11 display (DISPLAY is not set; this is a Wayland "
        "session) — no picture; the relay link stays up";
    const std::string request = R"(need_stream (prefer "jpeg"))";
    EXPECT_TRUE(pumpUntil([&] {
        const auto log = extensionLog();
        return log.find(request) != log.rfind(request);
    })) << extensionLog();
    const auto pongs = sandbox_->devicePongs();
    ASSERT_TRUE(sandbox_->sendToDevice(R"({"type":"ping"})"));
    EXPECT_TRUE(pumpUntil([&] { return sandbox_->devicePongs() > pongs; }));
    const auto once = extensionLog();
    EXPECT_NE(once.find(noPicture), std::string::npos) << once;
    EXPECT_EQ(once.find(noPicture), once.rfind(noPicture)) << once;
    EXPECT_TRUE(logHas("relay: " + sandbox_->relayWsUrl() + "/device (from pairing)"));
    const auto log = extensionLog();
    EXPECT_EQ(log.find(token_), std::string::npos);
    EXPECT_EQ(log.find(sandbox::SandboxOptions::kDemoKey), std::string::npos);
}

TEST_F(BroadcastProgramTest, CustomRelayUrlWins) {
    pair([this](SharedConfig::Values& values) {
        values.relayWsUrl = "ws://127.0.0.1:1/nowhere";
        values.relayOverride = "  " + sandbox_->relayWsUrl() + " ";
    });
    start();
    connected();
    EXPECT_TRUE(logHas("relay: " + sandbox_->relayWsUrl() + "/device (custom URL)"));
}

// Mid-session, and then at the upgrade with a token the relay never issued: each ends the
// broadcast with status 1 and no attempt to come back.
TEST_F(BroadcastProgramTest, ARejectedTokenEndsTheBroadcast) {
    pair();
    auto& process = start();
    connected();
    ASSERT_TRUE(sandbox_->closeDevice(4401, "unauthorized"));
    EXPECT_EQ(finished(process), 1);
    EXPECT_EQ(sandbox_->deviceConnections(), 1u);  // it did not come back with the refused token

    const std::string issued = token_;
    pair([](SharedConfig::Values& values) { values.deviceToken = "forged-token-0000"; });
    EXPECT_EQ(finished(start()), 1);  // and the first one's lock went with it
    EXPECT_EQ(sandbox_->lastDeviceToken(), "forged-token-0000");
    const auto log = extensionLog();
    const std::string rejected = "relay rejected the device token — re-pair this device";
    EXPECT_NE(log.find(rejected, log.find(rejected) + 1), std::string::npos) << log;
    EXPECT_EQ(log.find("already running"), std::string::npos);
    for (const auto& token : {issued, token_, std::string("forged-token-0000")}) {
        EXPECT_EQ(log.find(token), std::string::npos) << token;
    }
}

}  // namespace
}  // namespace velmorand
