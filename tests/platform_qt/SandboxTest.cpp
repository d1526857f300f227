#include "velmorand/sandbox/Sandbox.h"

#include <gtest/gtest.h>

#include <QProcess>
#include <nlohmann/json.hpp>

#include "QtTestSupport.h"
#include "velmorand/qt/QtHttpClient.h"
#include "velmorand/qt/QtMainQueue.h"

namespace velmorand::sandbox {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

constexpr const char* kDemo = R"({"accessKey":"demo-key-1234"})";

class SandboxTest : public ::testing::Test {
  protected:
    void start(SandboxOptions options = {}) {
        sandbox_ = std::make_unique<Sandbox>(std::move(options));
        std::string error;
        ASSERT_TRUE(sandbox_->start(&error)) << error;
    }

    // The status and the JSON body (null when there is none); the status is -1 on no answer.
    std::pair<int, json> call(const std::string& path, std::optional<std::string> body = {},
                              std::chrono::milliseconds timeout = 10s) {
        HttpRequest request;
        request.method = body ? "POST" : "GET";
        request.url = (path.starts_with("http") ? "" : sandbox_->baseUrl()) + path;
        request.body = std::move(body);
        request.timeout = timeout;
        const auto outcome = testing::sendAndWait(client_, request);
        const auto* response = std::get_if<HttpResponse>(&outcome);
        if (!response) {
            return {-1, nullptr};
        }
        return {response->statusCode, json::parse(response->body.value_or("null"), nullptr, false)};
    }

    json wda(const std::string& key = "demo-key-1234") {
        return call("/api/agent/wda?accessKey=" + key).second;
    }

    QtMainQueue mainQueue_;
    QtHttpClient client_{mainQueue_};
    std::unique_ptr<Sandbox> sandbox_;
};

TEST_F(SandboxTest, HandshakeWithAKnownKeyIssuesARememberedToken) {
    start();
    const std::string sent =
        R"({"accessKey":"demo-key-1234","webrtc":true,"preferredRegion":"eu"})";
    const auto [status, body] = call("/api/agent-handshake", sent);
    ASSERT_EQ(status, 200);
    const auto token = body.at("deviceToken").get<std::string>();
    EXPECT_TRUE(sandbox_->isIssuedToken(token));
    EXPECT_FALSE(sandbox_->isIssuedToken(token + "x"));
    EXPECT_EQ(body.at("relayWsUrl"),
              "ws://127.0.0.1:" + std::to_string(sandbox_->port()) + "/relay");
    EXPECT_EQ(body.at("deviceName"), "Sandbox iPhone");
    EXPECT_EQ(body.at("webrtcEnabled"), false);
    // A second handshake: a fresh token, the same device, the old token still good.
    const auto again = call("/api/agent-handshake", sent).second;
    EXPECT_NE(again.at("deviceToken"), token);
    EXPECT_EQ(again.at("deviceId"), body.at("deviceId"));
    EXPECT_TRUE(sandbox_->isIssuedToken(token));
    EXPECT_EQ(sandbox_->lastHandshakeBody(), sent);
    EXPECT_EQ(call("/admin/last-handshake"), std::pair(200, json::parse(sent)));
}

TEST_F(SandboxTest, HandshakeRefusesUnknownKeysAndMalformedBodies) {
    SandboxOptions options;
    options.accessKeys = {"key-a", "key-b"};
    start(std::move(options));
    EXPECT_EQ(call("/admin/last-handshake").first, 404);
    const std::pair<const char*, int> cases[] = {
        {R"({"accessKey":"key-b","webrtc":true})", 200},
        {R"({"accessKey":"demo-key-1234","webrtc":false})", 401},
        {R"({"accessKey":"","webrtc":false})", 401},
        {"[]", 400},
        {R"({"accessKey":7,"webrtc":true})", 400},
        {R"({"accessKey":"key-a"})", 400},
        {R"({"accessKey":"key-a","webrtc":true,"preferredRegion":3})", 400},
    };
    for (const auto& [sent, expected] : cases) {
        SCOPED_TRACE(sent);
        const auto [status, body] = call("/api/agent-handshake", sent);
        EXPECT_EQ(status, expected);
        if (status == 401) {
            EXPECT_EQ(body.at("error"), "Unknown access key");
        } else if (status == 400) {
            EXPECT_TRUE(body.at("error").is_string());
        }
        EXPECT_EQ(sandbox_->lastHandshakeBody(), sent);
    }
}

TEST_F(SandboxTest, RefusesToStartWithoutAUsableCertificate) {
    SandboxOptions options;
    options.tlsCertificateFile = "/nonexistent/missing.pem";
    options.tlsKeyFile = "/nonexistent/missing.key";
    Sandbox sandbox(std::move(options));
    std::string error;
    EXPECT_FALSE(sandbox.start(&error));
    EXPECT_FALSE(error.empty());
}

TEST_F(SandboxTest, TouchControlGoesFromIdleThroughStartingToActiveForKnownKeysOnly) {
    SandboxOptions options;
    options.wdaStartupTime = 400ms;
    start(std::move(options));
    EXPECT_EQ(call("/api/agent/wda", R"({"accessKey":"nope"})"),
              std::pair(403, json{{"error", "Unknown access key"}}));
    EXPECT_EQ(call("/api/agent/wda", "{}").first, 400);
    EXPECT_EQ(call("/api/agent/wda").first, 400);
    EXPECT_EQ(call("/api/agent/wda?accessKey=nope").first, 403);
    EXPECT_EQ(wda(), json::parse(R"({"enabled":true,"wdaStatus":"idle"})"));
    const auto [status, body] = call("/api/agent/wda", kDemo);
    EXPECT_EQ(status, 202);
    EXPECT_TRUE(body.at("message").is_string());
    EXPECT_EQ(wda().at("wdaStatus"), "starting");
    testing::pumpFor(500ms);
    EXPECT_EQ(wda().at("wdaStatus"), "active");
    EXPECT_EQ(call(sandbox_->wdaBaseUrl() + "/status"),
              std::pair(200, json::parse(R"({"value":{"ready":true}})")));
}

TEST_F(SandboxTest, ModesShapeTheStatusAnswerAndSwitchAtRunTime) {
    SandboxOptions options;
    options.wdaMode = WdaMode::error;
    start(std::move(options));
    EXPECT_EQ(wda(),
              json::parse(R"({"enabled":true,"wdaStatus":"error","wdaDetail":"Sandbox says no"})"));
    EXPECT_EQ(call("/admin/wda-mode", R"({"mode":"disabled"})").first, 200);
    EXPECT_EQ(sandbox_->wdaMode(), WdaMode::disabled);
    EXPECT_EQ(wda(), json::parse(R"({"enabled":false})"));
    EXPECT_EQ(call("/admin/wda-mode", "normal").first, 200);
    EXPECT_EQ(wda().at("wdaStatus"), "idle");
    EXPECT_EQ(call("/admin/wda-mode", R"({"mode":"sideways"})").first, 400);
    EXPECT_EQ(sandbox_->wdaMode(), WdaMode::normal);
    for (auto mode : {WdaMode::normal, WdaMode::error, WdaMode::disabled, WdaMode::slow}) {
        EXPECT_EQ(parseWdaMode(wdaModeName(mode)), mode);
    }
    EXPECT_FALSE(parseWdaMode("Normal"));
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
    std::optional<HttpOutcome> patient;
    client_.send(impatient, [&](HttpOutcome outcome) { gaveUp = std::move(outcome); });
    impatient.timeout = 5s;
    client_.send(impatient, [&](HttpOutcome outcome) { patient = std::move(outcome); });
    EXPECT_EQ(call("/api/agent/wda", kDemo).first, 202);  // the rest is answered at once
    EXPECT_FALSE(patient);
    ASSERT_TRUE(testing::pumpUntil([&] { return gaveUp && patient; }));
    EXPECT_TRUE(std::holds_alternative<HttpTransportError>(*gaveUp));
    EXPECT_EQ(json::parse(std::get<HttpResponse>(*patient).body.value_or("")).at("enabled"), true);
    testing::pumpFor(100ms);  // still serving after the abandoned answer fell due
    EXPECT_EQ(call("/admin/wda-mode", "normal").first, 200);
}

TEST(SandboxProgram, PrintsItsUrlAndKeys) {
    QProcess program;
    program.start(QStringLiteral(VELMORAND_SANDBOX_EXE),
                  {"--port", "0", "--key", "k1", "--key", "k2"});
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
