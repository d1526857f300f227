// The handshake and touch control against servers that misbehave: each ends in its status line,
// within its time-out, over the real Qt HTTP client and main queue.
#include <gtest/gtest.h>

#include <QElapsedTimer>
#include <memory>
#include <optional>
#include <string>

#include "FakeBundle.h"
#include "FakeClassLookup.h"
#include "InMemoryKeychain.h"
#include "InMemorySettings.h"
#include "QtTestSupport.h"
#include "RecordingLog.h"
#include "RecordingPasteboard.h"
#include "ScriptedServer.h"
#include "TempDir.h"
#include "velmorand/config/AppGroup.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/pairing/PairingModel.h"
#include "velmorand/pairing/WebRtcCapability.h"
#include "velmorand/qt/QtHttpClient.h"
#include "velmorand/qt/QtMainQueue.h"

namespace velmorand::testing {
namespace {

using namespace std::chrono_literals;

constexpr const char* kAccessKey = "KEY-FAULTS-1";
constexpr const char* kStopped = "Touch control stopped — tap Start to restart";
const std::string kHandshakeBody =
    R"({"deviceToken":"t","relayWsUrl":"wss://relay.test","deviceId":"d","deviceName":"Phone"})";
constexpr const char* kIdleText = "Touch control: idle — tap Start (or use the dashboard)";

class HttpFaults : public ::testing::Test {
  protected:
    // Read by the client when it is made, hence first.
    ScopedEnv ca{"VELMORAND_CA_FILE", testPki().caCertificate.string()};
    TempDir dir;
    FakeBundle bundle{dir.path()};
    InMemorySettingsStores stores;
    InMemoryKeychain keychain;
    AppGroup appGroup{bundle};
    SharedConfig config{stores, keychain, appGroup};
    QtMainQueue queue;
    QtHttpClient http{queue};
    FakeClassLookup classes;
    RecordingLog log;
    WebRtcCapability webRtc{classes, config, log};
    RecordingPasteboard pasteboard;
    std::shared_ptr<PairingModel> model;

    void makeModel(const std::string& appURL,
                   const std::string& wdaStatusURL = "http://127.0.0.1:9/status") {
        model = PairingModel::create(PairingServices{
            .config = config,
            .http = http,
            .mainQueue = queue,
            .webRtc = webRtc,
            .pasteboard = pasteboard,
            .bundle = bundle,
            .broadcastExtensionLookup = [] { return std::nullopt; },
            .appURL = appURL,
            .wdaStatusURL = wdaStatusURL,
        });
    }

    // A device paired earlier with the service at `appURL`.
    void storePairing(const std::string& appURL) {
        HandshakeResult result;
        result.deviceToken = "stored-token";
        result.relayWsUrl = "wss://relay.test";
        result.deviceId = "stored-id";
        config.save(kAccessKey, appURL, result);
    }

    // Pairs and waits for the outcome; the time it took goes to `elapsed`.
    std::string pairAndWait(std::chrono::milliseconds limit, qint64* elapsed = nullptr) {
        QElapsedTimer clock;
        clock.start();
        model->pair(kAccessKey);
        EXPECT_TRUE(pumpUntil([&] { return !model->busy(); }, limit)) << model->status();
        if (elapsed) {
            *elapsed = clock.elapsed();
        }
        return model->status();
    }

    // Runs `operation` and waits until the touch-control line leaves `from`.
    std::string touchAndWait(void (PairingModel::*operation)(), const std::string& from,
                             std::chrono::milliseconds limit, qint64* elapsed = nullptr) {
        QElapsedTimer clock;
        clock.start();
        (model.get()->*operation)();
        EXPECT_TRUE(pumpUntil([&] { return model->wdaStatus() != from; }, limit));
        if (elapsed) {
            *elapsed = clock.elapsed();
        }
        return model->wdaStatus();
    }
};

enum class Operation { pair, start, status };
enum class Fault { truncated, redirect, wrongName, expired };

struct FaultCase {
    const char* name;
    Operation operation;
    Fault fault;
    // The status line: exactly `exact` when set, else `prefix` followed by a transport error
    // holding `mentions`.
    std::string prefix;
    std::optional<std::string> exact = std::nullopt;
    const char* mentions = "";
};

std::ostream& operator<<(std::ostream& out, const FaultCase& c) {
    return out << c.name;
}

// What a healthy service would say to each operation.
std::string healthyBody(Operation operation) {
    switch (operation) {
        case Operation::pair:
            return kHandshakeBody;
        case Operation::start:
            return R"({"message":"Queued"})";
        case Operation::status:
            return R"({"wdaStatus":"idle"})";
    }
    return {};
}

class HttpFault : public HttpFaults, public ::testing::WithParamInterface<FaultCase> {};

TEST_P(HttpFault, EndsInItsStatusLine) {
    const auto& c = GetParam();
    ScriptedServer elsewhere(Answer::http(200, healthyBody(c.operation)));
    std::unique_ptr<ScriptedServer> server;
    switch (c.fault) {
        case Fault::truncated: {
            // Promises more than it sends, then hangs up.
            const auto body = healthyBody(c.operation);
            server = std::make_unique<ScriptedServer>(Answer::bytes(QByteArray::fromStdString(
                "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nContent-Length: " +
                std::to_string(body.size() + 100) + "\r\n\r\n" + body)));
            break;
        }
        case Fault::redirect:
            server = std::make_unique<ScriptedServer>(Answer::http(
                302, "moved", {"Location: " + elsewhere.baseUrl() + "/api/agent-handshake"}));
            break;
        case Fault::wrongName:
            server = std::make_unique<ScriptedServer>(
                Answer::http(200, healthyBody(c.operation)),
                ScriptedServer::Tls{testPki().localhostOnlyCertificate,
                                    testPki().localhostOnlyKey});
            break;
        case Fault::expired:
            server = std::make_unique<ScriptedServer>(Answer::http(200, healthyBody(c.operation)),
                                                      expiredCertificate());
            break;
    }
    makeModel(server->baseUrl());
    storePairing(server->baseUrl());

    std::string status;
    switch (c.operation) {
        case Operation::pair:
            status = pairAndWait(20s);
            // A failed pairing leaves the earlier one in place.
            EXPECT_EQ(config.load().deviceToken, "stored-token");
            break;
        case Operation::start:
            status = touchAndWait(&PairingModel::startWda,
                                  "Queuing touch control on Velmorand Mac…", 20s);
            break;
        case Operation::status:
            status = touchAndWait(&PairingModel::refreshWdaStatus, "", 20s);
            break;
    }

    if (c.exact) {
        EXPECT_EQ(status, *c.exact);
    } else {
        ASSERT_TRUE(status.starts_with(c.prefix)) << status;
        const auto detail = status.substr(c.prefix.size());
        EXPECT_FALSE(detail.empty());
        EXPECT_NE(detail.find(c.mentions), std::string::npos) << status;
    }
    // Redirects are answers, never followed.
    EXPECT_TRUE(elsewhere.requests().empty());
    if (c.fault == Fault::wrongName || c.fault == Fault::expired) {
        EXPECT_TRUE(server->requests().empty()) << "a request went out over a rejected link";
    }
}

INSTANTIATE_TEST_SUITE_P(
    Faults, HttpFault,
    ::testing::Values(
        FaultCase{"PairTruncated", Operation::pair, Fault::truncated, "Pairing failed: "},
        FaultCase{"PairRedirect", Operation::pair, Fault::redirect, "",
                  "Pairing failed: Handshake 302: moved"},
        FaultCase{"PairWrongName", Operation::pair, Fault::wrongName,
                  "Pairing failed: ", std::nullopt, "host name"},
        FaultCase{"PairExpired", Operation::pair, Fault::expired, "Pairing failed: ", std::nullopt,
                  "expired"},
        FaultCase{"StartTruncated", Operation::start, Fault::truncated, "Start failed: "},
        FaultCase{"StartRedirect", Operation::start, Fault::redirect, "", "Start refused (302)"},
        FaultCase{"StartWrongName", Operation::start, Fault::wrongName,
                  "Start failed: ", std::nullopt, "host name"},
        FaultCase{"StartExpired", Operation::start, Fault::expired, "Start failed: ", std::nullopt,
                  "expired"},
        FaultCase{"StatusTruncated", Operation::status, Fault::truncated,
                  "Can't reach Velmorand: "},
        FaultCase{"StatusRedirect", Operation::status, Fault::redirect, "",
                  "Status check failed (302)"},
        FaultCase{"StatusWrongName", Operation::status, Fault::wrongName,
                  "Can't reach Velmorand: ", std::nullopt, "host name"},
        FaultCase{"StatusExpired", Operation::status, Fault::expired,
                  "Can't reach Velmorand: ", std::nullopt, "expired"}),
    [](const auto& info) { return std::string(info.param.name); });

struct LocalCase {
    const char* name;
    Answer answer;
    const char* expected;
    // The answer can only come from the 2-second time-out.
    bool timesOut = false;
};

class LocalServerFault : public HttpFaults, public ::testing::WithParamInterface<LocalCase> {};

TEST_P(LocalServerFault, OnlyAReadyServerShowsActiveAndNoneTakesLongerThanTwoSeconds) {
    const auto& c = GetParam();
    ScriptedServer service(Answer::http(200, R"({"wdaStatus":"active"})"));
    ScriptedServer local(c.answer);
    makeModel(service.baseUrl(), local.baseUrl() + "/status");
    storePairing(service.baseUrl());

    qint64 elapsed = 0;
    EXPECT_EQ(touchAndWait(&PairingModel::refreshWdaStatus, "", 10s, &elapsed), c.expected);
    EXPECT_EQ(local.requests().size(), 1u);
    EXPECT_LT(elapsed, 4000);
    if (c.timesOut) {
        EXPECT_GE(elapsed, 1500);
    }
}

Answer slowloris(const std::string& body) {
    Answer answer;
    answer.dribble = QByteArray::fromStdString(
        "HTTP/1.1 200 OK\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
    return answer;
}

INSTANTIATE_TEST_SUITE_P(
    Faults, LocalServerFault,
    ::testing::Values(
        LocalCase{"Ready", Answer::http(200, R"({"value":{"ready":true}})"),
                  "Touch control: active"},
        LocalCase{"Slowloris", slowloris(R"({"value":{"ready":true}})"), kStopped, true},
        LocalCase{"Silent", Answer::none(), kStopped, true},
        LocalCase{"Truncated",
                  Answer::bytes("HTTP/1.1 200 OK\r\nContent-Length: 90\r\n\r\n{\"value\":{\"rea"),
                  kStopped},
        LocalCase{"Redirect", Answer::http(302, "", {"Location: http://127.0.0.1:9/status"}),
                  kStopped}),
    [](const auto& info) { return std::string(info.param.name); });

// The one test that waits out the full 15 seconds.
TEST_F(HttpFaults, SlowlorisHandshakeTimesOutAfterFifteenSeconds) {
    ScriptedServer server(slowloris(kHandshakeBody));
    makeModel(server.baseUrl());

    qint64 elapsed = 0;
    EXPECT_EQ(pairAndWait(25s, &elapsed), "Pairing failed: The request timed out");
    EXPECT_GE(elapsed, 14'500);
    EXPECT_LT(elapsed, 18'000);
    EXPECT_FALSE(config.load().isPaired());
}

TEST_F(HttpFaults, PairingWhileAStatusCheckRunsFinishesBoth) {
    ScriptedServer handshake(Answer::http(200, kHandshakeBody));
    // The status answer trickles in while the handshake runs on its own thread.
    Answer trickle = Answer::bytes(
        "HTTP/1.1 200 OK\r\nContent-Length: 21\r\nContent-Type: application/json\r\n\r\n");
    trickle.dribble = R"({"wdaStatus":"idle"})"
                      "\n";
    trickle.dribbleEvery = 20ms;
    ScriptedServer service(trickle);
    makeModel(handshake.baseUrl());
    storePairing(service.baseUrl());

    model->refreshWdaStatus();
    model->pair(kAccessKey);
    ASSERT_TRUE(pumpUntil([&] { return !model->busy() && !model->wdaStatus().empty(); }, 20s));
    EXPECT_EQ(model->status(), "Paired as Phone");
    EXPECT_EQ(model->wdaStatus(), kIdleText);
    EXPECT_EQ(config.load().deviceToken, "t");
    ASSERT_FALSE(handshake.requests().empty());
    EXPECT_TRUE(handshake.requests().front().startsWith("POST /api/agent-handshake"));
    EXPECT_EQ(service.requests().size(), 1u);
}

}  // namespace
}  // namespace velmorand::testing
