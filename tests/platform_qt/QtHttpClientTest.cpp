#include "velmorand/qt/QtHttpClient.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <thread>

#include "QtTestSupport.h"
#include "velmorand/qt/QtMainQueue.h"
#include "velmorand/sandbox/Sandbox.h"

namespace velmorand {
namespace {

using sandbox::Sandbox;
using sandbox::SandboxOptions;
using testing::CannedServer;
using testing::ScopedEnv;
using testing::sendAndWait;
using testing::testPki;
using namespace std::chrono_literals;

constexpr const char* kCaVariable = "VELMORAND_CA_FILE";

HttpResponse answer(const HttpOutcome& outcome) {
    if (const auto* error = std::get_if<HttpTransportError>(&outcome)) {
        ADD_FAILURE() << "transport error: " << error->description;
        return HttpResponse{-1, std::nullopt};
    }
    return std::get<HttpResponse>(outcome);
}

std::string transportError(const HttpOutcome& outcome) {
    if (const auto* error = std::get_if<HttpTransportError>(&outcome)) {
        return error->description;
    }
    ADD_FAILURE() << "answered " << std::get<HttpResponse>(outcome).statusCode;
    return {};
}

HttpRequest handshakeRequest(const std::string& baseUrl, const std::string& key) {
    HttpRequest request;
    request.method = "POST";
    request.url = baseUrl + "/api/agent-handshake";
    request.headers = {{"Content-Type", "application/json"}};
    request.body = nlohmann::json{{"accessKey", key}, {"webrtc", false}}.dump();
    request.timeout = 15s;
    return request;
}

std::unique_ptr<Sandbox> startedSandbox(SandboxOptions options = {}) {
    auto sandbox = std::make_unique<Sandbox>(std::move(options));
    std::string error;
    EXPECT_TRUE(sandbox->start(&error)) << error;
    return sandbox;
}

std::unique_ptr<Sandbox> tlsSandbox(const std::filesystem::path& certificate,
                                    const std::filesystem::path& key) {
    SandboxOptions options;
    options.tlsCertificateFile = certificate.string();
    options.tlsKeyFile = key.string();
    return startedSandbox(std::move(options));
}

class QtHttpClientTest : public ::testing::Test {
  protected:
    QtMainQueue mainQueue_;
};

TEST_F(QtHttpClientTest, PostsToTheSandboxAndReadsItsAnswer) {
    auto sandbox = startedSandbox();
    QtHttpClient client(mainQueue_);
    const auto request = handshakeRequest(sandbox->baseUrl(), "demo-key-1234");

    const auto response = answer(sendAndWait(client, request));
    EXPECT_EQ(response.statusCode, 200);
    ASSERT_TRUE(response.body);
    const auto body = nlohmann::json::parse(*response.body);
    EXPECT_EQ(body.at("deviceName"), "Sandbox iPhone");
    EXPECT_EQ(sandbox->lastHandshakeBody(), request.body);
}

TEST_F(QtHttpClientTest, HttpErrorStatusesAreAnswersWithTheirBodies) {
    auto sandbox = startedSandbox();
    QtHttpClient client(mainQueue_);

    const auto refused = answer(sendAndWait(client, handshakeRequest(sandbox->baseUrl(), "no")));
    EXPECT_EQ(refused.statusCode, 401);
    ASSERT_TRUE(refused.body);
    EXPECT_EQ(nlohmann::json::parse(*refused.body).at("error"), "Unknown access key");

    // Qt files each of these under a different error of its own.
    for (int status : {400, 403, 404, 405, 409, 410, 418, 429, 500, 501, 503, 599}) {
        SCOPED_TRACE(status);
        CannedServer server("HTTP/1.1 " + QByteArray::number(status) +
                            " Whatever\r\nContent-Length: 4\r\nConnection: close\r\n\r\noops");
        HttpRequest request;
        request.url = server.url();
        const auto response = answer(sendAndWait(client, request));
        EXPECT_EQ(response.statusCode, status);
        EXPECT_EQ(response.body, "oops");
    }
}

TEST_F(QtHttpClientTest, TellsAnAbsentBodyFromAnEmptyOne) {
    struct Case {
        const char* name;
        std::string method;
        QByteArray response;
        int status;
        std::optional<std::string> body;
    };
    const Case cases[] = {
        {"no content", "GET", "HTTP/1.1 204 No Content\r\nConnection: close\r\n\r\n", 204,
         std::nullopt},
        {"not modified", "GET", "HTTP/1.1 304 Not Modified\r\nConnection: close\r\n\r\n", 304,
         std::nullopt},
        {"zero length", "GET", "HTTP/1.1 200 OK\r\nContent-Length: 0\r\nConnection: close\r\n\r\n",
         200, ""},
        {"head", "HEAD", "HTTP/1.1 200 OK\r\nContent-Length: 5\r\nConnection: close\r\n\r\n", 200,
         std::nullopt},
        {"redirect not followed", "GET",
         "HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:1/elsewhere\r\n"
         "Content-Length: 5\r\nConnection: close\r\n\r\nmoved",
         302, "moved"},
    };
    QtHttpClient client(mainQueue_);
    for (const auto& testCase : cases) {
        SCOPED_TRACE(testCase.name);
        CannedServer server(testCase.response);
        HttpRequest request;
        request.method = testCase.method;
        request.url = server.url();
        const auto response = answer(sendAndWait(client, request));
        EXPECT_EQ(response.statusCode, testCase.status);
        EXPECT_EQ(response.body, testCase.body);
    }
}

TEST_F(QtHttpClientTest, SendsMethodHeadersAndBodyAsGiven) {
    CannedServer server("HTTP/1.1 200 OK\r\nContent-Length: 2\r\nConnection: close\r\n\r\nok");
    QtHttpClient client(mainQueue_);
    HttpRequest request;
    request.method = "PUT";
    request.url = server.url("/api/thing?x=1");
    request.headers = {{"x-device-token", "tok-123"}, {"Content-Type", "application/json"}};
    request.body = R"({"a":1})";

    EXPECT_EQ(answer(sendAndWait(client, request)).body, "ok");
    ASSERT_EQ(server.requests().size(), 1u);
    const std::string received = server.requests()[0].toStdString();
    EXPECT_EQ(received.rfind("PUT /api/thing?x=1 HTTP/1.1\r\n", 0), 0u) << received;
    EXPECT_NE(received.find("x-device-token: tok-123\r\n"), std::string::npos) << received;
    EXPECT_NE(received.find("\r\n\r\n{\"a\":1}"), std::string::npos) << received;
}

TEST_F(QtHttpClientTest, FailuresWithoutAnAnswerAreTransportErrors) {
    QtHttpClient client(mainQueue_);

    HttpRequest refused;
    refused.url = "http://127.0.0.1:" + std::to_string(testing::refusedPort()) + "/";
    EXPECT_FALSE(transportError(sendAndWait(client, refused)).empty());

    HttpRequest malformed;
    malformed.url = "not a url";
    EXPECT_FALSE(transportError(sendAndWait(client, malformed)).empty());

    // A server that accepts and never says a word.
    CannedServer silent(std::nullopt);
    HttpRequest stalled;
    stalled.url = silent.url();
    stalled.timeout = 2s;
    EXPECT_NE(transportError(sendAndWait(client, stalled)).find("timed out"), std::string::npos);
    EXPECT_EQ(silent.requests().size(), 1u);
}

TEST_F(QtHttpClientTest, RefusesABodyOverTheLimit) {
    auto sandbox = startedSandbox();
    QtHttpClient client(mainQueue_, 64);
    EXPECT_EQ(
        transportError(sendAndWait(client, handshakeRequest(sandbox->baseUrl(), "demo-key-1234"))),
        "Response too large");
    // Below the limit the same client answers.
    EXPECT_EQ(answer(sendAndWait(client, handshakeRequest(sandbox->baseUrl(), "x"))).statusCode,
              401);
}

TEST_F(QtHttpClientTest, HttpsTrustsTheExtraCaAndChecksTheServerName) {
    const auto& pki = testPki();
    auto good = tlsSandbox(pki.serverCertificate, pki.serverKey);
    auto misnamed = tlsSandbox(pki.localhostOnlyCertificate, pki.localhostOnlyKey);
    ASSERT_EQ(good->baseUrl().rfind("https://127.0.0.1:", 0), 0u);

    {
        ScopedEnv ca(kCaVariable, pki.caCertificate.string());
        QtHttpClient client(mainQueue_);
        const auto response =
            answer(sendAndWait(client, handshakeRequest(good->baseUrl(), "demo-key-1234")));
        EXPECT_EQ(response.statusCode, 200);
        // The certificate names localhost, but it is reached as 127.0.0.1.
        EXPECT_FALSE(transportError(sendAndWait(client, handshakeRequest(misnamed->baseUrl(),
                                                                         "demo-key-1234")))
                         .empty());
    }
    {
        ScopedEnv ca(kCaVariable, std::nullopt);
        QtHttpClient client(mainQueue_);
        EXPECT_FALSE(
            transportError(sendAndWait(client, handshakeRequest(good->baseUrl(), "demo-key-1234")))
                .empty());
    }
}

TEST_F(QtHttpClientTest, BlockingExchangeFromAWorkerThreadWhileTheMainLoopRuns) {
    auto sandbox = startedSandbox();
    QtHttpClient client(mainQueue_);
    std::optional<HttpOutcome> outcome;
    std::atomic<bool> finished{false};
    std::thread worker([&] {
        outcome = client.exchange(handshakeRequest(sandbox->baseUrl(), "demo-key-1234"));
        finished = true;
    });
    // The sandbox answers from this thread, so the exchange can only end while it turns.
    const bool ended = testing::pumpUntil([&] { return finished.load(); });
    worker.join();
    ASSERT_TRUE(ended);
    EXPECT_EQ(answer(*outcome).statusCode, 200);
}

TEST_F(QtHttpClientTest, DestroyingTheClientCancelsWhatIsInFlight) {
    CannedServer silent(std::nullopt);
    std::optional<HttpOutcome> sent;
    std::optional<HttpOutcome> exchanged;
    std::thread worker;
    {
        QtHttpClient client(mainQueue_);
        HttpRequest request;
        request.url = silent.url();
        client.send(request, [&](HttpOutcome outcome) { sent = std::move(outcome); });
        worker =
            std::thread([&client, &exchanged, request] { exchanged = client.exchange(request); });
        EXPECT_TRUE(testing::pumpUntil([&] { return silent.requests().size() == 2; }));
    }
    worker.join();
    ASSERT_TRUE(exchanged);
    EXPECT_EQ(transportError(*exchanged), "Cancelled");
    // The send completion still comes by the main queue.
    EXPECT_FALSE(sent);
    ASSERT_TRUE(testing::pumpUntil([&] { return sent.has_value(); }));
    EXPECT_EQ(transportError(*sent), "Cancelled");
}

}  // namespace
}  // namespace velmorand
