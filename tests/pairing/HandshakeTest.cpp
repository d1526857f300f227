#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "FakeHttpClient.h"
#include "ManualMainQueue.h"
#include "velmorand/pairing/Handshake.h"
#include "velmorand/pairing/JsonError.h"

namespace velmorand {
namespace {

using testing::answer;
using testing::FakeHttpClient;
using testing::ManualMainQueue;
using HandshakeError = Handshake::HandshakeError;

constexpr const char* kOkBody =
    R"({"deviceToken":"T","relayWsUrl":"wss://r","deviceId":"D","deviceName":"Desk"})";

class HandshakeTest : public ::testing::Test {
  protected:
    HandshakeTest() { http.route("POST", "", answer(200, kOkBody)); }

    HttpRequest sentRequest() {
        const auto requests = http.requests();
        EXPECT_EQ(requests.size(), 1u);
        return requests.empty() ? HttpRequest{} : requests.front();
    }

    ManualMainQueue queue;
    FakeHttpClient http{queue};
};

struct UrlCase {
    const char* appURL;
    const char* expected;
};

class HandshakeUrl : public HandshakeTest, public ::testing::WithParamInterface<UrlCase> {};

TEST_P(HandshakeUrl, BuildsTheEndpoint) {
    Handshake::exchange(http, GetParam().appURL, "K", std::nullopt, false);
    EXPECT_EQ(sentRequest().url, GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Bases, HandshakeUrl,
    ::testing::Values(UrlCase{"https://a.test", "https://a.test/api/agent-handshake"},
                      UrlCase{"https://a.test///", "https://a.test/api/agent-handshake"},
                      UrlCase{"https://a.test/base/", "https://a.test/base/api/agent-handshake"},
                      UrlCase{"wss://r.test/x", "https://r.test/x/api/agent-handshake"},
                      UrlCase{"ws://r.test:8080", "http://r.test:8080/api/agent-handshake"},
                      // Only slashes are trimmed, and only a lower-case ws prefix is rewritten.
                      UrlCase{"/https://a.test", "https://a.test/api/agent-handshake"},
                      UrlCase{"WSS://a.test", "WSS://a.test/api/agent-handshake"}));

TEST_F(HandshakeTest, RequestIsAJsonPostWithAFifteenSecondTimeout) {
    Handshake::exchange(http, "https://a.test", "K", std::nullopt, false);
    const auto request = sentRequest();
    EXPECT_EQ(request.method, "POST");
    EXPECT_EQ(request.timeout, std::chrono::seconds(15));
    ASSERT_EQ(request.headers.size(), 1u);
    EXPECT_EQ(request.headers[0].first, "Content-Type");
    EXPECT_EQ(request.headers[0].second, "application/json");
}

TEST_F(HandshakeTest, AnUnparseableBaseIsABadUrlAndSendsNothing) {
    try {
        Handshake::exchange(http, "https://a test", "K", std::nullopt, false);
        FAIL() << "expected badURL";
    } catch (const HandshakeError& error) {
        EXPECT_EQ(error.kind(), HandshakeError::Kind::badURL);
        EXPECT_EQ(error.description(), "Invalid app URL");
    }
    EXPECT_TRUE(http.requests().empty());
}

struct BodyCase {
    const char* accessKey;
    std::optional<std::string> region;
    bool webrtc;
    const char* expected;
};

class HandshakeBody : public HandshakeTest, public ::testing::WithParamInterface<BodyCase> {};

TEST_P(HandshakeBody, HoldsKeyFlagAndARealRegionOnly) {
    Handshake::exchange(http, "https://a.test", GetParam().accessKey, GetParam().region,
                        GetParam().webrtc);
    const auto body = sentRequest().body;
    ASSERT_TRUE(body);
    EXPECT_EQ(nlohmann::json::parse(*body), nlohmann::json::parse(GetParam().expected));
}

INSTANTIATE_TEST_SUITE_P(
    Regions, HandshakeBody,
    ::testing::Values(
        BodyCase{"K", std::nullopt, true, R"({"accessKey":"K","webrtc":true})"},
        BodyCase{"K", "", false, R"({"accessKey":"K","webrtc":false})"},
        BodyCase{"K", "auto", false, R"({"accessKey":"K","webrtc":false})"},
        BodyCase{"K", "eu", false, R"({"accessKey":"K","webrtc":false,"preferredRegion":"eu"})"},
        BodyCase{"K", "Auto", true, R"({"accessKey":"K","webrtc":true,"preferredRegion":"Auto"})"},
        // The key is sent as given.
        BodyCase{" a\"b ", std::nullopt, false, R"({"accessKey":" a\"b ","webrtc":false})"}));

TEST_F(HandshakeTest, AKeyThatIsNotUtf8FailsBeforeSending) {
    EXPECT_THROW(Handshake::exchange(http, "https://a.test", "\xff", std::nullopt, false),
                 JsonEncodeError);
    EXPECT_TRUE(http.requests().empty());
}

// The outcome of one answer: a result, or the error's type and description.
struct ResponseCase {
    const char* name;
    HttpOutcome outcome;
    std::optional<HandshakeResult> result;
    std::optional<HandshakeError::Kind> kind;
    std::string description;
};

class HandshakeResponse : public HandshakeTest,
                          public ::testing::WithParamInterface<ResponseCase> {};

TEST_P(HandshakeResponse, IsDecodedOrThrown) {
    const auto& expected = GetParam();
    http.route("POST", "", expected.outcome);
    try {
        const auto result = Handshake::exchange(http, "https://a.test", "K", std::nullopt, false);
        ASSERT_TRUE(expected.result) << "unexpected success";
        EXPECT_EQ(result.deviceToken, expected.result->deviceToken);
        EXPECT_EQ(result.relayWsUrl, expected.result->relayWsUrl);
        EXPECT_EQ(result.deviceId, expected.result->deviceId);
        EXPECT_EQ(result.deviceName, expected.result->deviceName);
        EXPECT_EQ(result.webrtcEnabled, expected.result->webrtcEnabled);
    } catch (const HandshakeError& error) {
        ASSERT_TRUE(expected.kind) << "unexpected " << error.description();
        EXPECT_EQ(error.kind(), *expected.kind);
        EXPECT_EQ(error.description(), expected.description);
    } catch (const JsonParseError& error) {
        ASSERT_FALSE(expected.kind || expected.result) << "unexpected " << error.description();
        EXPECT_EQ(error.description(), expected.description);
    }
}

HandshakeResult result(std::string name, bool webrtc) {
    return HandshakeResult{"T", "wss://r", "D", std::move(name), webrtc};
}

ResponseCase succeeds(const char* name, HttpOutcome outcome, HandshakeResult result) {
    return ResponseCase{name, std::move(outcome), std::move(result), std::nullopt, ""};
}

ResponseCase fails(const char* name, HttpOutcome outcome, HandshakeError::Kind kind,
                   std::string description) {
    return ResponseCase{name, std::move(outcome), std::nullopt, kind, std::move(description)};
}

// Rethrown as the parser's error, not as `decode`.
ResponseCase notJson(const char* name, HttpOutcome outcome) {
    return ResponseCase{name, std::move(outcome), std::nullopt, std::nullopt,
                        JsonParseError().description()};
}

using Kind = HandshakeError::Kind;

INSTANTIATE_TEST_SUITE_P(
    Answers, HandshakeResponse,
    ::testing::Values(
        succeeds("complete", answer(201, R"({"deviceToken":"T","relayWsUrl":"wss://r",
            "deviceId":"D","deviceName":"Desk","webrtcEnabled":true,"extra":[1]})"),
                 result("Desk", true)),
        succeeds("defaults", answer(200, R"({"deviceToken":"T","relayWsUrl":"wss://r",
            "deviceId":"D"})"),
                 result("iPhone", false)),
        succeeds("wrongTypedOptionals", answer(200, R"({"deviceToken":"T",
            "relayWsUrl":"wss://r","deviceId":"D","deviceName":7,"webrtcEnabled":"yes"})"),
                 result("iPhone", false)),
        succeeds("flagAsOne", answer(200, R"({"deviceToken":"T","relayWsUrl":"wss://r",
            "deviceId":"D","webrtcEnabled":1})"),
                 result("iPhone", true)),
        succeeds("flagAsTwo", answer(200, R"({"deviceToken":"T","relayWsUrl":"wss://r",
            "deviceId":"D","webrtcEnabled":2})"),
                 result("iPhone", false)),
        succeeds("emptyStrings", answer(200, R"({"deviceToken":"","relayWsUrl":"",
            "deviceId":"","deviceName":""})"),
                 HandshakeResult{"", "", "", "", false}),
        fails("missingDeviceId", answer(200, R"({"deviceToken":"T","relayWsUrl":"r"})"),
              Kind::decode, "Bad handshake response"),
        fails("numericToken", answer(200, R"({"deviceToken":5,"relayWsUrl":"r","deviceId":"D"})"),
              Kind::decode, "Bad handshake response"),
        fails("array", answer(200, "[1,2]"), Kind::decode, "Bad handshake response"),
        notJson("html", answer(200, "<html>")), notJson("zeroBytes", answer(200, "")),
        notJson("bareString", answer(200, R"("T")")),
        fails("noBody", answer(204, std::nullopt), Kind::http, "Handshake 204: "),
        fails("errorMember", answer(401, R"({"error":"Invalid access key"})"), Kind::http,
              "Handshake 401: Invalid access key"),
        fails("errorNotString", answer(403, R"({"error":{"code":1}})"), Kind::http,
              R"(Handshake 403: {"error":{"code":1}})"),
        fails("plainText", answer(500, "upstream down"), Kind::http,
              "Handshake 500: upstream down"),
        fails("notUtf8", answer(502, "\xff\xfe"), Kind::http, "Handshake 502: "),
        fails("notHttp", answer(0, "x"), Kind::http, "Handshake 0: x"),
        fails("transport", testing::transportError("The request timed out."), Kind::network,
              "The request timed out.")),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace velmorand
