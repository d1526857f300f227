// The handshake and touch control against servers that misbehave: each ends in its status line,
// within its time-out, over the real Qt HTTP client and main queue.
#include <gtest/gtest.h>

#include <QElapsedTimer>

#include "FakeClassLookup.h"
#include "InMemoryConfig.h"
#include "QtTestSupport.h"
#include "RecordingLog.h"
#include "RecordingPasteboard.h"
#include "ScopedEnv.h"
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

class HttpFaults : public ::testing::Test, protected InMemoryConfig {
  protected:
    void makeModel(const std::string& appURL,
                   const std::string& wdaStatusURL = "http://127.0.0.1:9/status") {
        model = PairingModel::create({.config = config,
                                      .http = http,
                                      .mainQueue = queue,
                                      .webRtc = webRtc,
                                      .pasteboard = pasteboard,
                                      .bundle = bundle,
                                      .broadcastExtensionLookup = [] { return std::nullopt; },
                                      .appURL = appURL,
                                      .wdaStatusURL = wdaStatusURL});
    }
    // A device paired earlier with the service at `appURL`.
    void storePairing(const std::string& appURL) {
        config.save(kAccessKey, appURL, {"stored-token", "wss://relay.test", "stored-id"});
    }
    // Runs `operation` and waits until `line()` differs from `from`; the text and the time taken.
    std::pair<std::string, qint64> waitFor(const std::function<void()>& operation,
                                           const std::function<std::string()>& line,
                                           const std::string& from,
                                           std::chrono::milliseconds limit) {
        QElapsedTimer clock;
        clock.start();
        operation();
        EXPECT_TRUE(pumpUntil([&] { return line() != from && !model->busy(); }, limit)) << line();
        return {line(), clock.elapsed()};
    }
    std::pair<std::string, qint64> pair(std::chrono::milliseconds limit = 20s) {
        return waitFor([&] { model->pair(kAccessKey); }, [&] { return model->status(); },
                       "Pairing…", limit);
    }
    // The touch-control line once the service has been asked for its state.
    std::pair<std::string, qint64> checkTouchControl() {
        return waitFor([&] { model->refreshWdaStatus(); }, [&] { return model->wdaStatus(); }, "",
                       20s);
    }

    // Read by the client when it is made, hence first.
    ScopedEnv ca{"VELMORAND_CA_FILE", testPki().caCertificate.c_str()};
    QtMainQueue queue;
    QtHttpClient http{queue};
    FakeClassLookup classes;
    RecordingLog log;
    WebRtcCapability webRtc{classes, config, log};
    RecordingPasteboard pasteboard;
    std::shared_ptr<PairingModel> model;
};

// Each fault once, on the blocking handshake or on a touch-control request; the texts are
// exact, or a prefix and a transport error that names the fault.
TEST_F(HttpFaults, EachFaultEndsInItsStatusLineWithoutFollowingOrTrustingIt) {
    ScriptedServer elsewhere(httpAnswer(200, kHandshakeBody));
    const auto truncated = [](const std::string& body) {
        return QByteArray::fromStdString("HTTP/1.1 200 OK\r\nContent-Length: " +
                                         std::to_string(body.size() + 100) + "\r\n\r\n" + body);
    };
    // From https down to http: never followed.
    const auto redirect = httpAnswer(307, "moved", "Location: " + elsewhere.baseUrl() + "/x\r\n");
    const ScriptedServer::Tls trusted{testPki().serverCertificate, testPki().serverKey};
    const ScriptedServer::Tls misnamed{testPki().localhostOnlyCertificate,
                                       testPki().localhostOnlyKey};
    // clang-format off
    const struct {
        const char* name;
        QByteArray answer;
        std::optional<ScriptedServer::Tls> tls;
        bool checksTouchControl;
        std::string prefix;
        const char* mentions;
    } cases[] = {
        {"pair truncated", truncated(kHandshakeBody), {}, false, "Pairing failed: ", ""},
        {"pair insecure redirect", redirect, trusted, false, "Pairing failed: ",
         "Redirected from https to http"},
        {"pair 407", httpAnswer(407, R"({"error":"Proxy says no"})"), {}, false,
         "Pairing failed: Handshake 407: Proxy says no", nullptr},
        {"pair misnamed", httpAnswer(200, kHandshakeBody), misnamed, false, "Pairing failed: ",
         "host name"},
        {"pair too large",
         httpAnswer(200, std::string(QtHttpClient::kDefaultMaxBodyBytes + 1, ' ')), {}, false,
         "Pairing failed: Response too large", nullptr},
        {"status expired", httpAnswer(200, R"({"wdaStatus":"idle"})"), expiredCertificate(), true,
         "Can't reach Velmorand: ", "expired"},
    };
    // clang-format on
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        ScriptedServer server(c.answer, c.tls);
        makeModel(server.baseUrl());
        storePairing(server.baseUrl());
        const auto status = c.checksTouchControl ? checkTouchControl().first : pair().first;
        if (c.mentions == nullptr) {
            EXPECT_EQ(status, c.prefix);
        } else {
            ASSERT_TRUE(status.starts_with(c.prefix)) << status;
            EXPECT_GT(status.size(), c.prefix.size()) << status;
            EXPECT_NE(status.find(c.mentions, c.prefix.size()), std::string::npos) << status;
        }
        // A failed pairing leaves the earlier one in place; nothing goes over a rejected link.
        EXPECT_EQ(config.load().deviceToken, "stored-token");
        EXPECT_EQ(server.requests().empty(), c.tls && c.tls->certificate != trusted.certificate);
    }
    EXPECT_TRUE(elsewhere.requests().empty()) << "a redirect was followed";
}

// The service says "active"; only a ready local server shows it, and none takes over 2 s.
TEST_F(HttpFaults, OnlyAReadyLocalServerShowsActiveAndNoneTakesLongerThanTwoSeconds) {
    ScriptedServer service(httpAnswer(200, R"({"wdaStatus":"active"})"));
    const std::string ready = R"({"value":{"ready":true}})";
    ScriptedServer readyServer(httpAnswer(200, ready));
    ScriptedServer slowServer(QByteArray(), std::nullopt, httpAnswer(200, ready));
    ScriptedServer silentServer(std::nullopt);
    const std::tuple<const char*, std::string, const char*, bool> cases[] = {
        {"ready", readyServer.baseUrl() + "/status", "Touch control: active", false},
        {"slowloris", slowServer.baseUrl() + "/status", kStopped, true},
        {"silent", silentServer.baseUrl() + "/status", kStopped, true},
    };
    for (const auto& [name, url, expected, timesOut] : cases) {
        SCOPED_TRACE(name);
        makeModel(service.baseUrl(), url);
        storePairing(service.baseUrl());
        const auto [status, elapsed] = checkTouchControl();
        EXPECT_EQ(status, expected);
        EXPECT_LT(elapsed, 4000);
        if (timesOut) {
            EXPECT_GE(elapsed, 1500);
        }
    }
    EXPECT_EQ(readyServer.requests().size(), 1u);
    EXPECT_EQ(slowServer.requests().size(), 1u);
    EXPECT_EQ(silentServer.requests().size(), 1u);
}

// A service that has moved its handshake answers with a redirect: 307 keeps the POST and its
// body, whether the connection is kept for the next request or closed after each answer.
TEST_F(HttpFaults, ARedirectedHandshakePairsEveryTime) {
    for (const bool keepAlive : {true, false}) {
        int moved = 0;
        ScriptedServer server(
            [&moved](const QByteArray& request) {
                if (request.startsWith("POST /moved/api/agent-handshake ") &&
                    request.contains(kAccessKey)) {
                    ++moved;
                    return httpAnswer(200, kHandshakeBody);
                }
                if (request.startsWith("POST /api/agent-handshake ")) {
                    return httpAnswer(307, "", "Location: /moved/api/agent-handshake\r\n");
                }
                return httpAnswer(404, "{}");
            },
            keepAlive);
        makeModel(server.baseUrl());
        for (int run = 0; run < 40; ++run) {
            ASSERT_EQ(pair().first, "Paired as Phone")
                << "keep-alive " << keepAlive << " run " << run;
        }
        EXPECT_EQ(moved, 40);
    }
}

// The one test that waits out the full 15 seconds.
TEST_F(HttpFaults, SlowlorisHandshakeTimesOutAfterFifteenSeconds) {
    ScriptedServer server(QByteArray(), std::nullopt, httpAnswer(200, kHandshakeBody));
    makeModel(server.baseUrl());
    const auto [status, elapsed] = pair(25s);
    EXPECT_EQ(status, "Pairing failed: The request timed out");
    // Qt's transfer timer is a coarse one, allowed to fire up to 5% early.
    EXPECT_GE(elapsed, 14'250);
    EXPECT_LT(elapsed, 18'000);
    EXPECT_FALSE(config.load().isPaired());
}

}  // namespace
}  // namespace velmorand::testing
