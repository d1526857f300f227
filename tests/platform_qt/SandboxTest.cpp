#include "velmorand/sandbox/Sandbox.h"

#include <gtest/gtest.h>

#include <QProcess>
#include <nlohmann/json.hpp>

#include "QtTestSupport.h"
#include "TempDir.h"
#include "velmorand/qt/QtHttpClient.h"
#include "velmorand/qt/QtMainQueue.h"

namespace velmorand::sandbox {
namespace {

using nlohmann::json;
using testing::sendAndWait;
using namespace std::chrono_literals;

struct Reply {
    int status = 0;
    json body;
};

class SandboxTest : public ::testing::Test {
  protected:
    void start(SandboxOptions options = {}) {
        sandbox_ = std::make_unique<Sandbox>(std::move(options));
        std::string error;
        ASSERT_TRUE(sandbox_->start(&error)) << error;
    }

    Reply call(std::string method, std::string url, std::optional<std::string> body = {},
               std::chrono::milliseconds timeout = 10s) {
        HttpRequest request;
        request.method = std::move(method);
        request.url = std::move(url);
        request.body = std::move(body);
        request.timeout = timeout;
        const auto outcome = sendAndWait(client_, request);
        if (const auto* error = std::get_if<HttpTransportError>(&outcome)) {
            ADD_FAILURE() << error->description;
            return {};
        }
        const auto& response = std::get<HttpResponse>(outcome);
        return {response.statusCode, json::parse(response.body.value_or("null"), nullptr, false)};
    }

    Reply post(const std::string& path, const std::string& body) {
        return call("POST", sandbox_->baseUrl() + path, body);
    }
    Reply wdaStatus(const std::string& key) {
        return call("GET", sandbox_->baseUrl() + "/api/agent/wda?accessKey=" + key);
    }

    QtMainQueue mainQueue_;
    QtHttpClient client_{mainQueue_};
    std::unique_ptr<Sandbox> sandbox_;
};

TEST_F(SandboxTest, HandshakeWithAKnownKeyIssuesARememberedToken) {
    start();
    const std::string sent =
        R"({"accessKey":"demo-key-1234","webrtc":true,"preferredRegion":"eu"})";
    const auto reply = post("/api/agent-handshake", sent);

    ASSERT_EQ(reply.status, 200);
    const auto token = reply.body.at("deviceToken").get<std::string>();
    EXPECT_FALSE(token.empty());
    EXPECT_TRUE(sandbox_->isIssuedToken(token));
    EXPECT_FALSE(sandbox_->isIssuedToken(token + "x"));
    EXPECT_EQ(reply.body.at("relayWsUrl"),
              "ws://127.0.0.1:" + std::to_string(sandbox_->port()) + "/relay");
    EXPECT_EQ(reply.body.at("deviceName"), "Sandbox iPhone");
    EXPECT_EQ(reply.body.at("webrtcEnabled"), false);
    EXPECT_TRUE(reply.body.at("deviceId").is_string());

    // A second handshake: a fresh token, the same device.
    const auto again = post("/api/agent-handshake", sent);
    EXPECT_NE(again.body.at("deviceToken"), token);
    EXPECT_EQ(again.body.at("deviceId"), reply.body.at("deviceId"));
    EXPECT_TRUE(sandbox_->isIssuedToken(token));

    EXPECT_EQ(sandbox_->lastHandshakeBody(), sent);
    const auto last = call("GET", sandbox_->baseUrl() + "/admin/last-handshake");
    EXPECT_EQ(last.status, 200);
    EXPECT_EQ(last.body, json::parse(sent));
}

TEST_F(SandboxTest, HandshakeRefusesUnknownKeysAndMalformedBodies) {
    SandboxOptions options;
    options.accessKeys = {"key-a", "key-b"};
    start(std::move(options));
    EXPECT_EQ(call("GET", sandbox_->baseUrl() + "/admin/last-handshake").status, 404);

    const struct {
        const char* body;
        int status;
    } cases[] = {
        {R"({"accessKey":"key-a","webrtc":false})", 200},
        {R"({"accessKey":"key-b","webrtc":true})", 200},
        {R"({"accessKey":"demo-key-1234","webrtc":false})", 401},
        {R"({"accessKey":"","webrtc":false})", 401},
        {"not json", 400},
        {"[]", 400},
        {R"({"webrtc":true})", 400},
        {R"({"accessKey":7,"webrtc":true})", 400},
        {R"({"accessKey":"key-a"})", 400},
        {R"({"accessKey":"key-a","webrtc":"yes"})", 400},
        {R"({"accessKey":"key-a","webrtc":true,"preferredRegion":3})", 400},
    };
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.body);
        const auto reply = post("/api/agent-handshake", testCase.body);
        EXPECT_EQ(reply.status, testCase.status);
        if (testCase.status == 401) {
            EXPECT_EQ(reply.body.at("error"), "Unknown access key");
        } else if (testCase.status == 400) {
            EXPECT_TRUE(reply.body.at("error").is_string());
        }
        EXPECT_EQ(sandbox_->lastHandshakeBody(), testCase.body);
    }
    EXPECT_EQ(sandbox_->accessKeys(), (std::vector<std::string>{"key-a", "key-b"}));
}

TEST_F(SandboxTest, TlsSandboxHandsOutSecureUrls) {
    const auto& pki = testing::testPki();
    SandboxOptions options;
    options.tlsCertificateFile = pki.serverCertificate.string();
    options.tlsKeyFile = pki.serverKey.string();
    start(std::move(options));
    testing::ScopedEnv ca("VELMORAND_CA_FILE", pki.caCertificate.string());
    QtHttpClient trusting(mainQueue_);

    HttpRequest request;
    request.method = "POST";
    request.url = sandbox_->baseUrl() + "/api/agent-handshake";
    request.body = R"({"accessKey":"demo-key-1234","webrtc":false})";
    const auto outcome = sendAndWait(trusting, request);
    ASSERT_TRUE(std::holds_alternative<HttpResponse>(outcome));
    const auto body = json::parse(std::get<HttpResponse>(outcome).body.value_or(""));
    EXPECT_EQ(body.at("relayWsUrl"),
              "wss://127.0.0.1:" + std::to_string(sandbox_->port()) + "/relay");
}

TEST_F(SandboxTest, RefusesToStartWithoutAUsableCertificate) {
    testing::TempDir dir;
    SandboxOptions options;
    options.tlsCertificateFile = (dir.path() / "missing.pem").string();
    options.tlsKeyFile = (dir.path() / "missing.key").string();
    Sandbox sandbox(std::move(options));
    std::string error;
    EXPECT_FALSE(sandbox.start(&error));
    EXPECT_FALSE(error.empty());
}

TEST_F(SandboxTest, TouchControlGoesFromIdleThroughStartingToActive) {
    SandboxOptions options;
    options.wdaStartupTime = 400ms;
    start(std::move(options));

    EXPECT_EQ(wdaStatus("demo-key-1234").body,
              json::parse(R"({"enabled":true,"wdaStatus":"idle"})"));
    const auto started = post("/api/agent/wda", R"({"accessKey":"demo-key-1234"})");
    EXPECT_EQ(started.status, 202);
    EXPECT_TRUE(started.body.at("message").is_string());
    EXPECT_EQ(wdaStatus("demo-key-1234").body.at("wdaStatus"), "starting");
    testing::pumpFor(500ms);
    EXPECT_EQ(wdaStatus("demo-key-1234").body.at("wdaStatus"), "active");

    const auto automation = call("GET", sandbox_->wdaBaseUrl() + "/status");
    EXPECT_EQ(automation.status, 200);
    EXPECT_EQ(automation.body, json::parse(R"({"value":{"ready":true}})"));
    EXPECT_NE(sandbox_->wdaPort(), sandbox_->port());
}

TEST_F(SandboxTest, TouchControlRefusesUnknownKeysAndBadRequests) {
    start();
    EXPECT_EQ(post("/api/agent/wda", R"({"accessKey":"nope"})").status, 403);
    EXPECT_EQ(post("/api/agent/wda", R"({"accessKey":"nope"})").body.at("error"),
              "Unknown access key");
    EXPECT_EQ(post("/api/agent/wda", "{}").status, 400);
    EXPECT_EQ(wdaStatus("nope").status, 403);
    EXPECT_EQ(call("GET", sandbox_->baseUrl() + "/api/agent/wda").status, 400);
    // An unknown key's start leaves a known key idle.
    EXPECT_EQ(wdaStatus("demo-key-1234").body.at("wdaStatus"), "idle");
}

TEST_F(SandboxTest, ModesShapeTheStatusAnswerAndSwitchAtRunTime) {
    SandboxOptions options;
    options.wdaMode = WdaMode::error;
    start(std::move(options));
    EXPECT_EQ(wdaStatus("demo-key-1234").body,
              json::parse(R"({"enabled":true,"wdaStatus":"error","wdaDetail":"Sandbox says no"})"));

    const auto switched = post("/admin/wda-mode", R"({"mode":"disabled"})");
    EXPECT_EQ(switched.status, 200);
    EXPECT_EQ(sandbox_->wdaMode(), WdaMode::disabled);
    EXPECT_EQ(wdaStatus("demo-key-1234").body, json::parse(R"({"enabled":false})"));

    EXPECT_EQ(post("/admin/wda-mode", "normal").status, 200);
    EXPECT_EQ(wdaStatus("demo-key-1234").body.at("wdaStatus"), "idle");

    EXPECT_EQ(post("/admin/wda-mode", R"({"mode":"sideways"})").status, 400);
    EXPECT_EQ(sandbox_->wdaMode(), WdaMode::normal);
}

TEST_F(SandboxTest, SlowModeAnswersLateWithoutHoldingUpOtherRequests) {
    SandboxOptions options;
    options.wdaMode = WdaMode::slow;
    options.slowDelay = 600ms;
    start(std::move(options));

    // A caller that gives up first gets a time-out; the late answer then finds no socket.
    HttpRequest impatient;
    impatient.url = sandbox_->baseUrl() + "/api/agent/wda?accessKey=demo-key-1234";
    impatient.timeout = 200ms;
    std::optional<HttpOutcome> gaveUp;
    client_.send(impatient, [&](HttpOutcome outcome) { gaveUp = std::move(outcome); });

    std::optional<HttpOutcome> patient;
    impatient.timeout = 5s;
    client_.send(impatient, [&](HttpOutcome outcome) { patient = std::move(outcome); });

    // Meanwhile the service answers everything else at once.
    EXPECT_EQ(post("/api/agent/wda", R"({"accessKey":"demo-key-1234"})").status, 202);
    EXPECT_FALSE(patient);

    ASSERT_TRUE(testing::pumpUntil([&] { return gaveUp && patient; }));
    ASSERT_TRUE(std::holds_alternative<HttpTransportError>(*gaveUp));
    ASSERT_TRUE(std::holds_alternative<HttpResponse>(*patient));
    EXPECT_EQ(std::get<HttpResponse>(*patient).statusCode, 200);
    EXPECT_EQ(json::parse(std::get<HttpResponse>(*patient).body.value_or("")).at("enabled"), true);
    // Still serving after the abandoned answer fell due.
    testing::pumpFor(100ms);
    EXPECT_EQ(post("/admin/wda-mode", "normal").status, 200);
}

TEST(SandboxModes, NamesRoundTrip) {
    for (auto mode : {WdaMode::normal, WdaMode::error, WdaMode::disabled, WdaMode::slow}) {
        EXPECT_EQ(parseWdaMode(wdaModeName(mode)), mode);
    }
    EXPECT_FALSE(parseWdaMode("Normal"));
    EXPECT_FALSE(parseWdaMode(""));
}

TEST(SandboxProgram, PrintsItsUrlAndKeys) {
    QProcess program;
    program.start(QStringLiteral(VELMORAND_SANDBOX_EXE),
                  {QStringLiteral("--port"), QStringLiteral("0"), QStringLiteral("--key"),
                   QStringLiteral("k1"), QStringLiteral("--key"), QStringLiteral("k2")});
    ASSERT_TRUE(program.waitForStarted(10'000));
    QByteArray out;
    while (out.count('\n') < 3 && program.waitForReadyRead(10'000)) {
        out += program.readAllStandardOutput();
    }
    program.kill();
    program.waitForFinished(10'000);
    const auto lines = out.split('\n');
    ASSERT_GE(lines.size(), 3);
    EXPECT_TRUE(lines[0].startsWith("http://127.0.0.1:")) << lines[0].toStdString();
    EXPECT_FALSE(lines[0].endsWith(":0"));
    EXPECT_EQ(lines[1], "k1");
    EXPECT_EQ(lines[2], "k2");
}

}  // namespace
}  // namespace velmorand::sandbox
