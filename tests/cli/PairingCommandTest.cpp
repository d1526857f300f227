#include <gtest/gtest.h>

#include <QTimer>
#include <fstream>
#include <nlohmann/json.hpp>

#include "CommandRunner.h"
#include "TempDir.h"
#include "velmorand/sandbox/Sandbox.h"

namespace velmorand {
namespace {

using testing::CommandResult;

constexpr const char* kDemoKey = "demo-key-1234";

// Each test gets its own sandbox service and data root, and runs the program as a person would.
class PairingCommandTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string error;
        ASSERT_TRUE(sandbox_.start(&error)) << error;
        serviceUrl_ = sandbox_.baseUrl();
        wdaStatusUrl_ = sandbox_.wdaBaseUrl() + "/status";
    }

    CommandResult velmorand(std::vector<std::string> arguments,
                            std::vector<std::string> environment = {}) {
        // Later entries win, so a test can point the program elsewhere.
        environment.insert(environment.begin(), "VELMORAND_WDA_URL=" + wdaStatusUrl_);
        return testing::runVelmorand(data_.path(), std::move(arguments), serviceUrl_, {},
                                     environment);
    }

    nlohmann::json storedConfig() {
        return nlohmann::json::parse(velmorand({"config", "show", "--json", "--show-secrets"}).out);
    }

    testing::TempDir data_;
    sandbox::Sandbox sandbox_{sandbox::SandboxOptions{}};
    std::string serviceUrl_;
    std::string wdaStatusUrl_;
};

TEST_F(PairingCommandTest, PairsAndAFailedRepairingKeepsTheEarlierPairing) {
    const auto refused = velmorand({"pair", "wrong-key"});
    EXPECT_EQ(refused.exitCode, 1);
    EXPECT_EQ(refused.out, "Pairing…\nPairing failed: Handshake 401: Unknown access key\n");

    const auto paired = velmorand({"pair", std::string(" ") + kDemoKey + "\n"});
    EXPECT_EQ(paired.exitCode, 0) << paired.err;
    EXPECT_EQ(paired.out, "Pairing…\nPaired as Sandbox iPhone\n");
    const auto stored = storedConfig();
    EXPECT_EQ(stored["accessKey"], kDemoKey);
    EXPECT_EQ(stored["appURL"], serviceUrl_);
    EXPECT_EQ(stored["isPaired"], true);

    EXPECT_EQ(velmorand({"pair", "another-wrong-key"}).exitCode, 1);
    EXPECT_EQ(storedConfig(), stored);

    const auto blank = velmorand({"pair", " \t"});
    EXPECT_EQ(blank.exitCode, 2);
    EXPECT_EQ(blank.err, "velmorand: no access key given\n");
}

TEST_F(PairingCommandTest, LinksAndScannedCodesCarryTheKey) {
    EXPECT_EQ(velmorand({"open", "x://y?key="}).exitCode, 2);
    EXPECT_EQ(velmorand({"open", "x://y?Key=K"}).exitCode, 2);
    const auto noKey = velmorand({"scan", "x://h/pair?mykey=abc"});
    EXPECT_EQ(noKey.exitCode, 1);
    EXPECT_EQ(noKey.out, "QR had no pair key.\n");

    const auto printed = velmorand({"scan", "--print-key", "x://h/pair?foo=1&key=a%2Bb"});
    EXPECT_EQ(printed.out, "a+b\n");
    EXPECT_EQ(velmorand({"scan", "--print-key", "pair?nothing=1"}).exitCode, 1);

    const auto opened =
        velmorand({"open", std::string("anything://open?foo=1&accessKey=") + kDemoKey + "&key=K2"});
    EXPECT_EQ(opened.exitCode, 0) << opened.out;
    EXPECT_EQ(storedConfig()["accessKey"], kDemoKey);

    EXPECT_EQ(velmorand({"unpair"}).out, "Unpaired\n");
    const auto scanned = velmorand({"scan", std::string("x://h/pair?KEY=") + kDemoKey});
    EXPECT_EQ(scanned.exitCode, 0) << scanned.out;
    EXPECT_EQ(storedConfig()["isPaired"], true);
}

TEST_F(PairingCommandTest, RelayPreferenceAndPairLink) {
    ASSERT_EQ(velmorand({"pair", kDemoKey}).exitCode, 0);

    const auto saved =
        velmorand({"relay", "--region", "eu", "--override", " wss://r.example/x \n"});
    EXPECT_EQ(saved.out, "Relay preference saved — applies on next broadcast start.\n");
    EXPECT_EQ(saved.err, "");
    auto stored = storedConfig();
    EXPECT_EQ(stored["relayRegion"], "eu");
    EXPECT_EQ(stored["relayOverride"], "wss://r.example/x");
    EXPECT_EQ(stored["isPaired"], true);
    EXPECT_EQ(velmorand({"relay", "--region", "mars"}).exitCode, 2);
    // Saved as typed, as the screen saves it, with a word on why it will not work.
    const std::pair<std::string, std::string> unusable[] = {
        {"notaurl",
         "Custom relay: not a ws:// or wss:// URL: the broadcast cannot connect with it"},
        {"ws://relay.example.org/r",
         "Custom relay: the broadcast will refuse it: ws:// would send the device token and every "
         "command unencrypted; it is allowed only to this computer (localhost) — use a wss:// "
         "relay URL"},
    };
    for (const auto& [url, problem] : unusable) {
        const auto warned = velmorand({"relay", "--override", url});
        EXPECT_EQ(warned.exitCode, 0);
        EXPECT_EQ(warned.err, "velmorand: warning: " + problem + "\n");
        EXPECT_EQ(storedConfig()["relayOverride"], url);
        EXPECT_EQ(nlohmann::json::parse(velmorand({"status", "--json"}).out)["relayProblem"],
                  problem);
    }
    ASSERT_EQ(velmorand({"relay", "--override", "wss://r.example/x"}).exitCode, 0);
    // The next pairing asks for the stored region.
    ASSERT_EQ(velmorand({"pair", kDemoKey}).exitCode, 0);
    EXPECT_EQ(nlohmann::json::parse(sandbox_.lastHandshakeBody().value_or("{}"))["preferredRegion"],
              "eu");

    const auto link = velmorand({"pair-url"});
    EXPECT_EQ(link.out, serviceUrl_ + "/pair?key=" + kDemoKey + "\n");
    EXPECT_EQ(link.err, "Copied pair URL.\n");
    EXPECT_EQ(velmorand({"pair-url", "--key", "A b"}).out, serviceUrl_ + "/pair?key=A b\n");

    EXPECT_EQ(velmorand({"unpair"}).exitCode, 0);
    const auto nothing = velmorand({"pair-url"});
    EXPECT_EQ(nothing.exitCode, 1);
    EXPECT_EQ(nothing.err, "Paste an access key first.\n");
}

TEST_F(PairingCommandTest, TouchControlStartsAndIsConfirmedByTheLocalServer) {
    const auto unpaired = velmorand({"touch", "start"});
    EXPECT_EQ(unpaired.out, "Pair this device first (access key required)\n");
    EXPECT_EQ(unpaired.exitCode, 1);
    ASSERT_EQ(velmorand({"pair", kDemoKey}).exitCode, 0);
    const auto idle = velmorand({"touch", "status"});
    EXPECT_EQ(idle.out, "Touch control: idle — tap Start (or use the dashboard)\n");
    EXPECT_EQ(idle.exitCode, 0);

    // Holds the start's own text for the 8-second wait, then shows what the follow-up check finds.
    const auto started = velmorand({"touch", "start"});
    EXPECT_EQ(started.exitCode, 0);
    EXPECT_EQ(started.out,
              "Queuing touch control on Velmorand Mac…\nQueued (sandbox)\nTouch control: active\n");

    // The service still says active, but the phone's own server does not answer.
    const auto unconfirmed =
        velmorand({"touch", "status"}, {"VELMORAND_WDA_URL=http://127.0.0.1:1/status"});
    EXPECT_EQ(unconfirmed.out, "Touch control stopped — tap Start to restart\n");
    EXPECT_EQ(unconfirmed.exitCode, 0);

    const auto status = nlohmann::json::parse(velmorand({"status", "--json"}).out);
    EXPECT_EQ(status["isPaired"], true);
    EXPECT_EQ(status["deviceName"], "Sandbox iPhone");
    EXPECT_EQ(status["wdaStatus"], "Touch control: active");
    EXPECT_EQ(status["appURL"], serviceUrl_);
}

// What the stores did not keep is not reported as saved: the command says where and why.
TEST_F(PairingCommandTest, SavesTheStoresDidNotKeepFail) {
    const auto plainFile = data_.path() / "plain-file";
    std::ofstream(plainFile) << "not a directory\n";
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{"pair", kDemoKey}, "could not save the pairing: cannot write "},
        {{"encode", "--fps", "5"}, "could not save the encode preferences: cannot write "},
        {{"relay", "--region", "eu"}, "could not save the relay preference: cannot write "},
    };
    for (const auto& [command, message] : cases) {
        const auto result = testing::runVelmorand(plainFile, command, serviceUrl_);
        EXPECT_EQ(result.exitCode, 1) << result.out;
        EXPECT_NE(result.err.find("velmorand: " + message + plainFile.string()), std::string::npos)
            << result.err;
    }
}

// A touch-control line that reports a failure ends the command with status 1.
TEST_F(PairingCommandTest, TouchControlFailuresExitOne) {
    ASSERT_EQ(velmorand({"pair", kDemoKey}).exitCode, 0);
    const std::pair<sandbox::WdaMode, std::string> cases[] = {
        {sandbox::WdaMode::error, "Sandbox says no\n"},
        {sandbox::WdaMode::disabled, "Touch server offline — ask Velmorand ops\n"},
    };
    for (const auto& [mode, out] : cases) {
        sandbox_.setWdaMode(mode);
        const auto result = velmorand({"touch", "status"});
        EXPECT_EQ(result.out, out);
        EXPECT_EQ(result.exitCode, 1);
    }
    sandbox_.suspend();
    const auto unreachable = velmorand({"touch", "start"});
    EXPECT_EQ(unreachable.out,
              "Queuing touch control on Velmorand Mac…\nStart failed: Connection refused\n"
              "Can't reach Velmorand: Connection refused\n");
    EXPECT_EQ(unreachable.exitCode, 1);
}

// People read labels, the local state at once and a word on what a slow check waits for.
TEST(PairingCommandSlowService, StatusSaysWhatItWaitsFor) {
    sandbox::SandboxOptions options;
    options.wdaMode = sandbox::WdaMode::slow;
    options.slowDelay = std::chrono::milliseconds(2500);
    sandbox::Sandbox service(options);
    std::string error;
    ASSERT_TRUE(service.start(&error)) << error;
    testing::TempDir data;
    const auto velmorand = [&](std::vector<std::string> arguments) {
        return testing::runVelmorand(data.path(), std::move(arguments), service.baseUrl());
    };
    ASSERT_EQ(velmorand({"pair", kDemoKey}).exitCode, 0);

    const auto status = velmorand({"status"});
    EXPECT_EQ(status.exitCode, 0);
    EXPECT_EQ(status.out,
              "Paired: yes\nDevice: Sandbox iPhone\n"
              "Relay region: auto\nService: " +
                  service.baseUrl() +
                  "\nBroadcast extension: co.velmorand.connect.broadcast\n"
                  "Broadcast: Not running\n"
                  "Touch control: idle — tap Start (or use the dashboard)\n");
    EXPECT_EQ(status.err,
              "velmorand: waiting for the touch-control state from " + service.baseUrl() + "…\n");
}

// What a viewer sends is printed line by line, however it is nested, until the relay refuses the
// token: the command then ends, saying what to do.
TEST_F(PairingCommandTest, RelayClientPrintsWhatViewersSendAndEndsWhenTheTokenIsRefused) {
    ASSERT_EQ(velmorand({"pair", kDemoKey}).exitCode, 0);
    const std::string nested = std::string(100'000, '[') + std::string(100'000, ']');
    const std::vector<std::string> script = {
        R"({"type":"webrtc_offer","sdp":"v=0"})",
        R"({"type":"webrtc_x","a":)" + nested + "}",
        R"({"type":"tap","x":1,"y":2})",
    };
    QTimer relay;
    QObject::connect(&relay, &QTimer::timeout, [&] {
        if (!sandbox_.deviceConnected()) {
            return;
        }
        relay.stop();
        for (const auto& message : script) {
            sandbox_.sendToDevice(message);
        }
        sandbox_.closeDevice(4401, "unauthorized");
    });
    relay.start(10);
    const auto run = velmorand({"relay-client"});
    EXPECT_EQ(run.exitCode, 1) << run.err;
    EXPECT_EQ(run.out,
              "{\"event\":\"open\"}\n"
              R"({"event":"webrtc_signal","message":{"sdp":"v=0","type":"webrtc_offer"}})"
              "\n"
              R"({"event":"control","control":"tap","x":1.0,"y":2.0})"
              "\n"
              "{\"event\":\"auth_rejected\"}\n");
    EXPECT_NE(run.err.find("pair this device again"), std::string::npos) << run.err;
}

}  // namespace
}  // namespace velmorand
