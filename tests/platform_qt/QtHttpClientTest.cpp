#include "velmorand/qt/QtHttpClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <nlohmann/json.hpp>
#include <thread>

#include "QtTestSupport.h"
#include "ScopedEnv.h"
#include "velmorand/qt/QtMainQueue.h"
#include "velmorand/sandbox/Sandbox.h"

namespace velmorand {
namespace {

using sandbox::Sandbox;
using ::testing::MatchesRegex;
using testing::ScriptedServer;
using testing::sendAndWait;
using namespace std::chrono_literals;

// "<status> <body>" ("-" for no body) for an answer, "error: <description>" for the rest.
std::string text(const HttpOutcome& outcome) {
    if (const auto* error = std::get_if<HttpTransportError>(&outcome)) {
        return "error: " + error->description;
    }
    const auto& response = std::get<HttpResponse>(outcome);
    return std::to_string(response.statusCode) + " " + response.body.value_or("-");
}

HttpRequest request(std::string url, std::string method = "GET",
                    std::chrono::milliseconds timeout = 15s) {
    HttpRequest request;
    request.method = std::move(method);
    request.url = std::move(url);
    request.timeout = timeout;
    return request;
}

HttpRequest handshake(const Sandbox& sandbox, const std::string& key = "demo-key-1234") {
    auto post = request(sandbox.baseUrl() + "/api/agent-handshake", "POST");
    post.headers = {{"Content-Type", "application/json"}};
    post.body = nlohmann::json{{"accessKey", key}, {"webrtc", false}}.dump();
    return post;
}

std::unique_ptr<Sandbox> started(std::optional<std::filesystem::path> certificate = {},
                                 std::optional<std::filesystem::path> key = {}) {
    sandbox::SandboxOptions options;
    if (certificate && key) {
        options.tlsCertificateFile = certificate->string();
        options.tlsKeyFile = key->string();
    }
    auto sandbox = std::make_unique<Sandbox>(std::move(options));
    std::string error;
    EXPECT_TRUE(sandbox->start(&error)) << error;
    return sandbox;
}

class QtHttpClientTest : public ::testing::Test {
  protected:
    QtMainQueue mainQueue_;
    QtHttpClient client_{mainQueue_};
};

TEST_F(QtHttpClientTest, PostsToTheSandboxAndReadsItsAnswer) {
    auto sandbox = started();
    const auto post = handshake(*sandbox);
    EXPECT_THAT(text(sendAndWait(client_, post)), MatchesRegex("200 .*\"Sandbox iPhone\".*"));
    EXPECT_EQ(sandbox->lastHandshakeBody(), post.body);
    EXPECT_EQ(text(sendAndWait(client_, handshake(*sandbox, "no"))),
              R"(401 {"error":"Unknown access key"})");
}

TEST_F(QtHttpClientTest, EveryHttpStatusIsAnAnswerWithItsBody) {
    // Qt files each of these error statuses under a different error of its own.
    for (int status : {400, 403, 404, 405, 407, 409, 410, 418, 429, 500, 501, 503, 599}) {
        ScriptedServer server("HTTP/1.1 " + QByteArray::number(status) +
                              " Whatever\r\nContent-Length: 4\r\nConnection: close\r\n\r\noops");
        EXPECT_EQ(text(sendAndWait(client_, request(server.url()))),
                  std::to_string(status) + " oops");
    }
    const std::tuple<const char*, QByteArray, const char*> cases[] = {
        {"GET", "204 No Content\r\n", "204 -"},
        {"GET", "304 Not Modified\r\n", "304 -"},
        {"GET", "200 OK\r\nContent-Length: 0\r\n", "200 "},
        {"HEAD", "200 OK\r\nContent-Length: 5\r\n", "200 -"},
    };
    for (const auto& [method, head, expected] : cases) {
        ScriptedServer server("HTTP/1.1 " + head + "Connection: close\r\n\r\nmoved");
        EXPECT_EQ(text(sendAndWait(client_, request(server.url(), method))), expected)
            << head.toStdString();
    }
}

// As the platform's session does: 307 and 308 repeat the request elsewhere, the others turn it
// into a GET without a body.
TEST_F(QtHttpClientTest, FollowsRedirectsKeepingMethodAndBodyFor307And308Only) {
    ScriptedServer target("HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok");
    for (const auto& [status, method] : std::map<int, std::string>{
             {301, "GET"}, {302, "GET"}, {303, "GET"}, {307, "POST"}, {308, "POST"}}) {
        ScriptedServer source("HTTP/1.1 " + QByteArray::number(status) + " Moved\r\nLocation: " +
                              QByteArray::fromStdString(target.url("/to")) +
                              "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
        auto post = request(source.url("/from"), "POST");
        post.body = R"({"a":1})";
        EXPECT_EQ(text(sendAndWait(client_, post)), "200 ok") << status;
        ASSERT_FALSE(target.requests().empty()) << status;
        const auto received = target.requests().back().toStdString();
        EXPECT_TRUE(received.starts_with(method + " /to ")) << received;
        EXPECT_EQ(received.ends_with(*post.body), method == "POST") << received;
    }
}

TEST_F(QtHttpClientTest, SendsMethodHeadersAndBodyAsGiven) {
    ScriptedServer server("HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok");
    auto put = request(server.url("/api/thing?x=1"), "PUT");
    put.headers = {{"x-device-token", "tok-123"}, {"Content-Type", "application/json"}};
    put.body = R"({"a":1})";
    EXPECT_EQ(text(sendAndWait(client_, put)), "200 ok");
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_THAT(server.requests()[0].toStdString(),
                MatchesRegex("PUT /api/thing\\?x=1 HTTP/1.1\r\n(.*\r\n)?x-device-token: "
                             "tok-123\r\n.*\r\n\r\n\\{\"a\":1\\}"));
}

TEST_F(QtHttpClientTest, FailuresWithoutAnAnswerAreTransportErrors) {
    const auto refused = "http://127.0.0.1:" + std::to_string(testing::refusedPort()) + "/";
    EXPECT_THAT(text(sendAndWait(client_, request(refused))), MatchesRegex("error: .+"));
    EXPECT_THAT(text(sendAndWait(client_, request("not a url"))), MatchesRegex("error: .+"));
    ScriptedServer silent(std::nullopt);  // accepts and never says a word
    EXPECT_THAT(text(sendAndWait(client_, request(silent.url(), "GET", 2s))),
                MatchesRegex("error: .*timed out.*"));
    EXPECT_EQ(silent.requests().size(), 1u);

    auto sandbox = started();
    QtHttpClient limited(mainQueue_, 64);
    EXPECT_EQ(text(sendAndWait(limited, handshake(*sandbox))), "error: Response too large");
    EXPECT_THAT(text(sendAndWait(limited, handshake(*sandbox, "x"))), MatchesRegex("401 .*"));
}

TEST_F(QtHttpClientTest, HttpsTrustsTheExtraCaAndChecksTheServerName) {
    const auto& pki = testing::testPki();
    auto good = started(pki.serverCertificate, pki.serverKey);
    auto misnamed = started(pki.localhostOnlyCertificate, pki.localhostOnlyKey);
    {
        testing::ScopedEnv ca("VELMORAND_CA_FILE", pki.caCertificate.c_str());
        QtHttpClient trusting(mainQueue_);
        const auto answer = text(sendAndWait(trusting, handshake(*good)));
        EXPECT_THAT(answer, MatchesRegex("200 .*\"relayWsUrl\":\"wss://127.0.0.1:.*/relay\".*"));
        // The certificate names localhost, but it is reached as 127.0.0.1.
        EXPECT_THAT(text(sendAndWait(trusting, handshake(*misnamed))), MatchesRegex("error: .+"));
    }
    testing::ScopedEnv noCa("VELMORAND_CA_FILE", nullptr);
    QtHttpClient untrusting(mainQueue_);
    EXPECT_THAT(text(sendAndWait(untrusting, handshake(*good))), MatchesRegex("error: .+"));
}

TEST_F(QtHttpClientTest, BlockingExchangeFromAWorkerThreadWhileTheMainLoopRuns) {
    auto sandbox = started();
    std::optional<HttpOutcome> outcome;
    std::atomic<bool> finished{false};
    std::thread worker([&] {
        outcome = client_.exchange(handshake(*sandbox));
        finished = true;
    });
    // The sandbox answers from this thread, so the exchange can only end while it turns.
    const bool ended = testing::pumpUntil([&] { return finished.load(); });
    worker.join();
    ASSERT_TRUE(ended);
    EXPECT_THAT(text(*outcome), MatchesRegex("200 .*"));
}

TEST_F(QtHttpClientTest, DestroyingTheClientCancelsWhatIsInFlight) {
    ScriptedServer silent(std::nullopt);
    std::optional<HttpOutcome> sent;
    std::optional<HttpOutcome> exchanged;
    std::thread worker;
    {
        QtHttpClient client(mainQueue_);
        client.send(request(silent.url()), [&](HttpOutcome outcome) { sent = std::move(outcome); });
        worker = std::thread([&] { exchanged = client.exchange(request(silent.url())); });
        EXPECT_TRUE(testing::pumpUntil([&] { return silent.requests().size() == 2; }));
    }
    worker.join();
    ASSERT_TRUE(exchanged);
    EXPECT_EQ(text(*exchanged), "error: Cancelled");
    EXPECT_FALSE(sent);  // the send completion still comes by the main queue
    ASSERT_TRUE(testing::pumpUntil([&] { return sent.has_value(); }));
    EXPECT_EQ(text(*sent), "error: Cancelled");
}

}  // namespace
}  // namespace velmorand
