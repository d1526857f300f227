// What the sandbox does that the CLI, browser and relay runs never ask of it.
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

class SandboxTest : public ::testing::Test {
  protected:
    void start(SandboxOptions options = {}) {
        sandbox_ = std::make_unique<Sandbox>(std::move(options));
        std::string error;
        ASSERT_TRUE(sandbox_->start(&error)) << error;
    }

    // GET without a body, POST with one; the status (-1 for no answer) and the JSON body.
    std::pair<int, json> call(const std::string& path, std::optional<std::string> body = {}) {
        HttpRequest request;
        request.method = body ? "POST" : "GET";
        request.url = sandbox_->baseUrl() + path;
        request.body = std::move(body);
        const auto outcome = testing::sendAndWait(client_, request);
        const auto* response = std::get_if<HttpResponse>(&outcome);
        return response ? std::pair(response->statusCode,
                                    json::parse(response->body.value_or("null"), nullptr, false))
                        : std::pair(-1, json());
    }

    json wda() { return call("/api/agent/wda?accessKey=demo-key-1234").second; }

    QtMainQueue mainQueue_;
    QtHttpClient client_{mainQueue_};
    std::unique_ptr<Sandbox> sandbox_;
};

// The clients never send these, so only here would the sandbox turn lenient unnoticed.
TEST_F(SandboxTest, HandshakesReissueTokensAndRefuseUnknownKeysAndMalformedBodies) {
    SandboxOptions options;
    options.accessKeys = {"key-a"};
    start(std::move(options));
    const std::string sent = R"({"accessKey":"key-a","webrtc":true})";
    const auto first = call("/api/agent-handshake", sent).second;
    const auto second = call("/api/agent-handshake", sent).second;
    EXPECT_EQ(first.at("webrtcEnabled"), false);
    EXPECT_NE(second.at("deviceToken"), first.at("deviceToken"));
    EXPECT_EQ(second.at("deviceId"), first.at("deviceId"));
    EXPECT_TRUE(sandbox_->isIssuedToken(first.at("deviceToken").get<std::string>()));
    EXPECT_EQ(call("/admin/last-handshake"), std::pair(200, json::parse(sent)));

    const std::tuple<const char*, std::optional<std::string>, int> cases[] = {
        {"/api/agent/wda", R"({"accessKey":"nope"})", 403},
        {"/api/agent/wda", "{}", 400},
        {"/api/agent/wda?accessKey=key-b", std::nullopt, 403},
        {"/api/agent-handshake", R"({"accessKey":"demo-key-1234","webrtc":false})", 401},
        {"/api/agent-handshake", "[]", 400},
        {"/api/agent-handshake", R"({"accessKey":7,"webrtc":true})", 400},
        {"/api/agent-handshake", R"({"accessKey":"key-a"})", 400},
        {"/api/agent-handshake", R"({"accessKey":"key-a","webrtc":true,"preferredRegion":3})", 400},
    };
    for (const auto& [path, body, status] : cases) {
        SCOPED_TRACE(body.value_or(path));
        EXPECT_EQ(call(path, body).first, status);
    }
    EXPECT_EQ(sandbox_->lastHandshakeBody(), std::get<1>(cases[7]));
}

TEST_F(SandboxTest, ModesShapeTheStatusAnswerAndSwitchAtRunTime) {
    SandboxOptions options;
    options.wdaMode = WdaMode::error;
    options.slowDelay = 400ms;
    start(std::move(options));
    EXPECT_EQ(wda(),
              json::parse(R"({"enabled":true,"wdaStatus":"error","wdaDetail":"Sandbox says no"})"));
    EXPECT_EQ(call("/admin/wda-mode", R"({"mode":"disabled"})").first, 200);
    EXPECT_EQ(wda(), json::parse(R"({"enabled":false})"));
    EXPECT_EQ(call("/admin/wda-mode", R"({"mode":"sideways"})").first, 400);
    EXPECT_EQ(sandbox_->wdaMode(), WdaMode::disabled);
    for (auto mode : {WdaMode::normal, WdaMode::error, WdaMode::disabled, WdaMode::slow}) {
        EXPECT_EQ(parseWdaMode(wdaModeName(mode)), mode);
    }
    EXPECT_FALSE(parseWdaMode("Normal"));

    // Slow: status answers come late, everything else at once; a caller that gave up first
    // leaves the late answer no socket, and the service carries on.
    EXPECT_EQ(call("/admin/wda-mode", "slow").first, 200);
    HttpRequest status;
    status.url = sandbox_->baseUrl() + "/api/agent/wda?accessKey=demo-key-1234";
    std::optional<HttpOutcome> gaveUp;
    std::optional<HttpOutcome> waited;
    status.timeout = 100ms;
    client_.send(status, [&](HttpOutcome outcome) { gaveUp = std::move(outcome); });
    status.timeout = 5s;
    client_.send(status, [&](HttpOutcome outcome) { waited = std::move(outcome); });
    EXPECT_EQ(call("/api/agent/wda", R"({"accessKey":"demo-key-1234"})").first, 202);
    EXPECT_FALSE(waited);
    ASSERT_TRUE(testing::pumpUntil([&] { return gaveUp && waited; }));
    EXPECT_TRUE(std::holds_alternative<HttpTransportError>(*gaveUp));
    EXPECT_EQ(json::parse(std::get<HttpResponse>(*waited).body.value_or("")).at("enabled"), true);
    testing::pumpFor(100ms);
    EXPECT_EQ(call("/admin/wda-mode", "normal").first, 200);
}

TEST(SandboxStart, RefusesToStartWithoutAUsableCertificate) {
    SandboxOptions options;
    options.tlsCertificateFile = "/nonexistent/missing.pem";
    options.tlsKeyFile = "/nonexistent/missing.key";
    Sandbox sandbox(std::move(options));
    std::string error;
    EXPECT_FALSE(sandbox.start(&error));
    EXPECT_FALSE(error.empty());
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
