#include <gtest/gtest.h>

#include "FakeHttpClient.h"
#include "ManualMainQueue.h"
#include "velmorand/pairing/AccessKey.h"
#include "velmorand/pairing/Handshake.h"
#include "velmorand/pairing/JsonError.h"

namespace velmorand {
namespace {

using testing::answer;
using HandshakeError = Handshake::HandshakeError;

TEST(ExtractAccessKey, FindsTheKeyOrNothing) {
    const std::pair<const char*, const char*> cases[] = {
        // Neither "://" nor "pair?": a bare key, taken whole however link-like.
        {"  K123 \n", "K123"},
        // Query items: the first named exactly key or accessKey, decoded and trimmed.
        {"x://h/pair?foo=1&key=a%2Bb", "a+b"},
        {"https://app.test/pair?accessKey=K1&key=K2", "K1"},
        {"https://app.test/pair?key=%20K9%20", "K9"},
        // An empty first item ends the item search; the case-blind pattern then looks at the
        // whole text and percent-decodes its capture, or keeps it when malformed.
        {"x://h/pair?key=&x=1#accessKey=Z", "Z"},
        {"x://h/pair#key=frag", "frag"},
        {"x://h/pair?KEY=a%2Bb", "a+b"},
        {"x://h/pair?KEY=50%zz", "50%zz"},
        {"x://h/pair?mykey=abc", ""},
        {"x://h/pair?key=", ""},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(extractAccessKey(text), expected) << text;
    }
}

class HandshakeTest : public ::testing::Test {
  protected:
    // The outcome of one answer as a line: the result, or the error's kind and description.
    std::string outcome(HttpOutcome outcome, std::string_view appURL = "https://a.test") {
        http.route("POST", "", std::move(outcome));
        try {
            const auto r = Handshake::exchange(http, appURL, "K", std::nullopt, false);
            return r.deviceToken + "|" + r.relayWsUrl + "|" + r.deviceId + "|" + r.deviceName +
                   (r.webrtcEnabled ? "|webrtc" : "");
        } catch (const HandshakeError& error) {
            const char* kinds[] = {"http", "network", "badURL", "decode"};
            return kinds[static_cast<int>(error.kind())] + (": " + error.description());
        } catch (const JsonParseError& error) {
            return "parser: " + error.description();
        }
    }

    testing::ManualMainQueue queue;
    testing::FakeHttpClient http{queue};
};

TEST_F(HandshakeTest, ABadUrlOrAKeyThatIsNotUtf8SendsNothing) {
    EXPECT_EQ(outcome(answer(200, "{}"), "https://a test"), "badURL: Invalid app URL");
    EXPECT_THROW(Handshake::exchange(http, "https://a.test", "\xff", std::nullopt, false),
                 JsonEncodeError);
    EXPECT_TRUE(http.requests().empty());
}

TEST_F(HandshakeTest, AnswersAreDecodedOrThrown) {
    const std::string notJson = "parser: " + JsonParseError().description();
    const std::pair<HttpOutcome, std::string> cases[] = {
        {answer(201, R"({"deviceToken":"T","relayWsUrl":"wss://r","deviceId":"D",
            "deviceName":"Desk","webrtcEnabled":true,"extra":[1]})"),
         "T|wss://r|D|Desk|webrtc"},
        {answer(200, R"({"deviceToken":"T","relayWsUrl":"wss://r","deviceId":"D"})"),
         "T|wss://r|D|iPhone"},
        // A number counts as the flag only when it is exactly 0 or 1.
        {answer(200, R"({"deviceToken":"T","relayWsUrl":"r","deviceId":"D","webrtcEnabled":1})"),
         "T|r|D|iPhone|webrtc"},
        {answer(200, R"({"deviceToken":"T","relayWsUrl":"r","deviceId":"D","webrtcEnabled":2})"),
         "T|r|D|iPhone"},
        {answer(200, R"({"deviceToken":"","relayWsUrl":"","deviceId":"","deviceName":""})"), "|||"},
        {answer(200, R"({"deviceToken":"T","relayWsUrl":"r"})"), "decode: Bad handshake response"},
        // The parser's own error, not decode.
        {answer(200, "<html>"), notJson},
        {answer(204, std::nullopt), "http: Handshake 204: "},
        {answer(401, R"({"error":"Invalid access key"})"),
         "http: Handshake 401: Invalid access key"},
        {answer(403, R"({"error":{"code":1}})"), R"(http: Handshake 403: {"error":{"code":1}})"},
        {answer(500, "upstream down"), "http: Handshake 500: upstream down"},
        {answer(502, "\xff\xfe"), "http: Handshake 502: "},
        {testing::transportError("The request timed out."), "network: The request timed out."},
    };
    for (const auto& [answer, expected] : cases) {
        EXPECT_EQ(outcome(answer), expected);
    }
    // Each went as JSON: the service reads no other body.
    const std::vector<std::pair<std::string, std::string>> json{
        {"Content-Type", "application/json"}};
    ASSERT_EQ(http.requests().size(), std::size(cases));
    for (const auto& request : http.requests()) {
        EXPECT_EQ(request.method, "POST");
        EXPECT_EQ(request.headers, json);
    }
}

}  // namespace
}  // namespace velmorand
