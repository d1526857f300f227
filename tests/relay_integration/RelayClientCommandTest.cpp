#include <gtest/gtest.h>

#include <signal.h>

#include <QProcess>
#include <algorithm>
#include <fstream>
#include <nlohmann/json.hpp>

#include "RelayTestSupport.h"
#include "TempDir.h"
#include "velmorand/config/AppGroup.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/desktop/DataRoot.h"
#include "velmorand/desktop/DesktopBundle.h"
#include "velmorand/desktop/DesktopSettingsStores.h"
#include "velmorand/desktop/PlistKeychain.h"

namespace velmorand::testing {
namespace {

using nlohmann::json;

// `velmorand relay-client` as a person runs it, with a fast back-off, read a line at a time.
struct RelayClientProcess {
    RelayClientProcess(const TempDir& data, const std::vector<std::string>& arguments) {
        QStringList list{"--data-dir", QString::fromStdString(data.path().string()), "--bundle-dir",
                         VELMORAND_DEV_BUNDLE, "relay-client"};
        for (const auto& argument : arguments) {
            list << QString::fromStdString(argument);
        }
        process.start(VELMORAND_CLI, list);
    }
    ~RelayClientProcess() {
        process.kill();
        process.waitForFinished();
    }
    // The next line on standard output, as JSON; null after the time limit.
    json nextEvent() {
        if (!pumpUntil([&] { return process.canReadLine(); })) {
            ADD_FAILURE() << "no line; stderr: " << process.readAllStandardError().toStdString();
            return nullptr;
        }
        return json::parse(process.readLine().toStdString());
    }
    // Sends `signal`; the exit status, or -1 when it did not exit normally.
    int stopWith(int signal) {
        ::kill(static_cast<pid_t>(process.processId()), signal);
        const bool ended = pumpUntil([&] { return process.state() == QProcess::NotRunning; });
        return ended && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
    }

    QProcess process;
};

const std::vector<std::string> kFastBackOff = {"--min-delay", "0.05",     "--max-delay",
                                               "0.2",         "--jitter", "0.01"};

TEST(RelayClientCommandTest, PairedDeviceReportsViewerMessagesAsJsonLinesUntilSigterm) {
    RelayBench bench(false);
    TempDir data;
    SharedConfig::Values values;
    values.deviceToken = bench.pairing.deviceToken;
    values.relayWsUrl = "ws://127.0.0.1:1/stale";
    // The custom relay wins, trimmed.
    values.relayOverride = "  " + bench.pairing.relayWsUrl + "\n";
    {
        const DataRoot root(data.path());
        DesktopBundle bundle(VELMORAND_DEV_BUNDLE);
        DesktopSettingsStores stores(root);
        PlistKeychain keychain(root.keychainFile(), bundle.resource("embedded", "mobileprovision"));
        AppGroup group(bundle);
        SharedConfig(stores, keychain, group).persist(values);
    }

    RelayClientProcess client(data, kFastBackOff);
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"open"})"));
    ASSERT_TRUE(pumpUntil([&] { return bench.sandbox->deviceConnected(); }));
    EXPECT_EQ(bench.sandbox->lastDeviceToken(), bench.pairing.deviceToken);

    Viewer viewer(bench.pairing.relayWsUrl);
    // The relay asks for a stream when the first viewer joins.
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"need_stream","prefer":null})"));
    viewer.send(R"({"type": "webrtc_offer","sdp":"v=0"})");
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"webrtc_signal",
                                                  "message":{"type":"webrtc_offer","sdp":"v=0"}})"));

    ASSERT_TRUE(bench.sandbox->closeDevice(4401, "unauthorized"));
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"auth_rejected"})"));
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"open"})"));
    // And again when the device comes back to a viewer.
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"need_stream","prefer":null})"));
    EXPECT_EQ(client.stopWith(SIGTERM), 0);
    EXPECT_TRUE(client.process.readAllStandardOutput().isEmpty());
}

TEST(RelayClientCommandTest, BaseAndTokenFileOverWssWithoutAnyPairingStopOnSigint) {
    RelayBench bench(true);
    TempDir data;
    const auto tokenFile = data.path() / "token";
    std::ofstream(tokenFile) << "  " << bench.pairing.deviceToken << "  \nsecond line\n";
    auto arguments = kFastBackOff;
    arguments.insert(arguments.end(),
                     {"--base", bench.pairing.relayWsUrl, "--token-file", tokenFile.string()});

    RelayClientProcess client(data, arguments);
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"open"})"));
    ASSERT_TRUE(pumpUntil([&] { return bench.sandbox->deviceConnected(); }));
    EXPECT_EQ(bench.sandbox->lastDeviceToken(), bench.pairing.deviceToken);
    Viewer viewer(bench.pairing.relayWsUrl);
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"need_stream","prefer":null})"));
    viewer.send(R"({"type":"latency_ping","t":42,"viewerId":"viewer-a"})");
    EXPECT_EQ(viewer.next(), R"({"type":"latency_pong","t":42,"viewerId":"viewer-a"})");
    viewer.send(R"({"type":"encode_settings","fps":29.5,"quality":0.4})");
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"encode_settings","fps":30,
                                                  "quality":0.4,"scale":null,"codec":null})"));
    EXPECT_EQ(client.stopWith(SIGINT), 0);
}

TEST(RelayClientCommandTest, BadUsageExitsWithStatus2AndOneLineSayingWhatIsWrong) {
    const std::pair<std::vector<std::string>, std::string> cases[] = {
        {{}, "not paired: no relay URL and no device token stored"},
        {{"--base", "ws://127.0.0.1:1/relay"}, "no device token stored"},
        {{"--token", "t"}, "no relay URL stored; pair this device first"},
        {{"--base", "ws://h/r", "--token-file", "EMPTY"}, "holds no token"},
        {{"--base", "ws://h/r", "--token-file", "/nonexistent/token"},
         "cannot read the token file /nonexistent/token"},
        {{"--token", "t", "--jitter", "0"}, "--jitter must be a positive"},
        {{"--token", "t", "--min-delay", "-1"}, "--min-delay must be a positive"},
        {{"--token", "t", "--max-delay", "inf"}, "--max-delay must be a positive"},
        {{"--token", "t", "--min-delay", "5", "--max-delay", "1"},
         "--min-delay (5) must not exceed --max-delay (1)"},
        {{"--token", "t", "--token-file", "EMPTY"}, "excludes"},
    };
    TempDir data;
    std::ofstream(data.path() / "empty") << "\n";
    for (auto [arguments, message] : cases) {
        SCOPED_TRACE(message);
        std::replace(arguments.begin(), arguments.end(), std::string("EMPTY"),
                     (data.path() / "empty").string());
        RelayClientProcess client(data, arguments);
        ASSERT_TRUE(client.process.waitForFinished(20'000));
        EXPECT_EQ(client.process.exitCode(), 2);
        EXPECT_TRUE(client.process.readAllStandardOutput().isEmpty());
        const std::string err = client.process.readAllStandardError().toStdString();
        EXPECT_NE(err.find(message), std::string::npos) << err;
        EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
    }
}

}  // namespace
}  // namespace velmorand::testing
