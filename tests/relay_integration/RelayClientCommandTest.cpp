#include <gtest/gtest.h>

#include <signal.h>

#include <QProcess>
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

namespace velmorand {
namespace {

using nlohmann::json;
using testing::pumpUntil;
using testing::RelayBench;
using testing::TempDir;
using testing::Viewer;
using namespace std::chrono_literals;

const std::vector<std::string> kFastBackOff = {"--min-delay", "0.05",     "--max-delay",
                                               "0.2",         "--jitter", "0.01"};

// `velmorand relay-client` as a person runs it, read a line at a time.
class RelayClientProcess {
  public:
    RelayClientProcess(const TempDir& data, std::vector<std::string> arguments) {
        QStringList list{QStringLiteral("--data-dir"), QString::fromStdString(data.path().string()),
                         QStringLiteral("--bundle-dir"), QStringLiteral(VELMORAND_DEV_BUNDLE),
                         QStringLiteral("relay-client")};
        for (const auto& argument : arguments) {
            list << QString::fromStdString(argument);
        }
        process_.setProgram(QStringLiteral(VELMORAND_CLI));
        process_.setArguments(list);
        process_.start();
    }

    ~RelayClientProcess() {
        if (process_.state() != QProcess::NotRunning) {
            process_.kill();
            process_.waitForFinished();
        }
    }

    // The next line on standard output, as JSON; null after the time limit.
    json nextEvent() {
        if (!pumpUntil([&] { return process_.canReadLine(); })) {
            ADD_FAILURE() << "no line; stderr: " << process_.readAllStandardError().toStdString();
            return nullptr;
        }
        return json::parse(process_.readLine().toStdString());
    }

    // Sends `signal` and waits for the exit; the exit status, or -1 when it did not exit
    // normally.
    int stopWith(int signal) {
        ::kill(static_cast<pid_t>(process_.processId()), signal);
        if (!pumpUntil([&] { return process_.state() == QProcess::NotRunning; })) {
            return -1;
        }
        return process_.exitStatus() == QProcess::NormalExit ? process_.exitCode() : -1;
    }

    QByteArray remainingOutput() { return process_.readAllStandardOutput(); }

  private:
    QProcess process_;
};

// Writes the pairing into the stores the program reads, as the app would.
void storePairing(const TempDir& data, const SharedConfig::Values& values) {
    const DataRoot root(data.path());
    DesktopBundle bundle(VELMORAND_DEV_BUNDLE);
    DesktopSettingsStores stores(root);
    PlistKeychain keychain(root.keychainFile(), bundle.resource("embedded", "mobileprovision"));
    AppGroup group(bundle);
    SharedConfig(stores, keychain, group).persist(values);
}

TEST(RelayClientCommandTest, PairedDeviceReportsViewerMessagesAsJsonLinesUntilSigterm) {
    RelayBench bench(false);
    TempDir data;
    SharedConfig::Values values;
    values.deviceToken = bench.pairing().deviceToken;
    values.relayWsUrl = "ws://127.0.0.1:1/stale";
    // The custom relay wins, trimmed.
    values.relayOverride = "  " + bench.pairing().relayWsUrl + "\n";
    storePairing(data, values);

    RelayClientProcess client(data, kFastBackOff);
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"open"})"));
    ASSERT_TRUE(pumpUntil([&] { return bench.sandbox().deviceConnected(); }));
    EXPECT_EQ(bench.sandbox().lastDeviceToken(), bench.pairing().deviceToken);

    Viewer viewer(bench.pairing().relayWsUrl);
    viewer.sendText(R"({"type":"latency_ping","t":5,"viewerId":"v1"})");
    EXPECT_EQ(viewer.next(), R"({"type":"latency_pong","t":5,"viewerId":"v1"})");
    viewer.sendText(R"({"type":"swipe","from":{"x":1,"y":2},"to":{"x":3,"y":4}})");
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"control","control":"swipe",
                                                  "from":{"x":1.0,"y":2.0},
                                                  "to":{"x":3.0,"y":4.0},"ms":250})"));
    viewer.sendText(R"({"type": "webrtc_offer","sdp":"v=0"})");
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"webrtc_signal",
                                                  "message":{"type":"webrtc_offer","sdp":"v=0"}})"));

    ASSERT_TRUE(bench.sandbox().closeDevice(4401, "unauthorized"));
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"auth_rejected"})"));
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"open"})"));

    EXPECT_EQ(client.stopWith(SIGTERM), 0);
    EXPECT_TRUE(client.remainingOutput().isEmpty());
}

TEST(RelayClientCommandTest, BaseAndTokenFileOverWssWithoutAnyPairingStopOnSigint) {
    RelayBench bench(true);
    TempDir data;
    const auto tokenFile = data.path() / "token";
    std::ofstream(tokenFile) << "  " << bench.pairing().deviceToken << "  \nsecond line\n";

    auto arguments = kFastBackOff;
    arguments.insert(arguments.end(),
                     {"--base", bench.pairing().relayWsUrl, "--token-file", tokenFile.string()});
    RelayClientProcess client(data, arguments);
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"open"})"));
    ASSERT_TRUE(pumpUntil([&] { return bench.sandbox().deviceConnected(); }));
    EXPECT_EQ(bench.sandbox().lastDeviceToken(), bench.pairing().deviceToken);

    Viewer viewer(bench.pairing().relayWsUrl);
    viewer.sendText(R"({"type":"encode_settings","fps":29.5,"quality":0.4})");
    EXPECT_EQ(client.nextEvent(), json::parse(R"({"event":"encode_settings","fps":30,
                                                  "quality":0.4,"scale":null,"codec":null})"));
    EXPECT_EQ(client.stopWith(SIGINT), 0);
}

struct UsageCase {
    const char* name;
    std::vector<std::string> arguments;
    const char* message;
};

class RelayClientUsageTest : public ::testing::TestWithParam<UsageCase> {};

TEST_P(RelayClientUsageTest, ExitsWithStatus2AndSaysWhatIsWrong) {
    TempDir data;
    std::ofstream(data.path() / "empty") << "\n";
    std::vector<std::string> arguments;
    for (const auto& argument : GetParam().arguments) {
        arguments.push_back(argument == "EMPTY" ? (data.path() / "empty").string() : argument);
    }
    QProcess process;
    QStringList list{QStringLiteral("--data-dir"), QString::fromStdString(data.path().string()),
                     QStringLiteral("--bundle-dir"), QStringLiteral(VELMORAND_DEV_BUNDLE),
                     QStringLiteral("relay-client")};
    for (const auto& argument : arguments) {
        list << QString::fromStdString(argument);
    }
    process.start(QStringLiteral(VELMORAND_CLI), list);
    ASSERT_TRUE(process.waitForFinished(20'000));
    EXPECT_EQ(process.exitCode(), 2);
    EXPECT_TRUE(process.readAllStandardOutput().isEmpty());
    const std::string err = process.readAllStandardError().toStdString();
    EXPECT_NE(err.find(GetParam().message), std::string::npos) << err;
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
}

INSTANTIATE_TEST_SUITE_P(
    Cases, RelayClientUsageTest,
    ::testing::Values(
        UsageCase{"NotPaired", {}, "not paired: no relay URL and no device token stored"},
        UsageCase{"NoToken", {"--base", "ws://127.0.0.1:1/relay"}, "no device token stored"},
        UsageCase{"NoBase", {"--token", "t"}, "no relay URL stored; pair this device first"},
        UsageCase{"EmptyTokenFile",
                  {"--base", "ws://127.0.0.1:1/relay", "--token-file", "EMPTY"},
                  "holds no token"},
        UsageCase{"MissingTokenFile",
                  {"--base", "ws://127.0.0.1:1/relay", "--token-file", "/nonexistent/token"},
                  "cannot read the token file /nonexistent/token"},
        UsageCase{"ZeroJitter", {"--token", "t", "--jitter", "0"}, "--jitter must be a positive"},
        UsageCase{"NegativeMinimum",
                  {"--token", "t", "--min-delay", "-1"},
                  "--min-delay must be a positive"},
        UsageCase{"InfiniteMaximum",
                  {"--token", "t", "--max-delay", "inf"},
                  "--max-delay must be a positive"},
        UsageCase{"MinimumAboveMaximum",
                  {"--token", "t", "--min-delay", "5", "--max-delay", "1"},
                  "--min-delay (5) must not exceed --max-delay (1)"},
        UsageCase{"TokenTwice", {"--token", "t", "--token-file", "EMPTY"}, "excludes"}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace velmorand
