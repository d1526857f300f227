#include "velmorand/relay/Control.h"
#include "velmorand/relay/Protocol.h"
#include "velmorand/relay/RelayUrlPolicy.h"

#include <cstdint>

#include <gtest/gtest.h>

// Expected records name only the fields they set.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace velmorand {
namespace {

using C = Control;
using M = IncomingMessage;

TEST(IncomingMessageDecode, AcceptsWhatTheRulesAllow) {
    const std::pair<std::string, M> cases[] = {
        {R"({"type":"tap","x":10,"y":null})", M{.type = "tap", .x = 10}},
        {R"({"type":"p","t":3.0,"ms":1e2,"rttMs":-0.0})",
         M{.type = "p", .ms = 100, .t = 3, .rttMs = 0}},
        {R"({"type":"p","t":9223372036854775807,"ms":-9223372036854775808})",
         M{.type = "p", .ms = INT64_MIN, .t = INT64_MAX}},
        // Judged as written, not as the nearest double (2^63 for both).
        {R"({"type":"p","t":9223372036854775807.0,"ms":-92233720368547758.08e2})",
         M{.type = "p", .ms = INT64_MIN, .t = INT64_MAX}},
        // Beyond a double's range, but under keys that are ignored.
        {R"({"type":"ping","pad":1e400,"more":[-1E+999,{"x":1)" + std::string(400, '0') + "}]}",
         M{.type = "ping"}},
        {R"({"type":"swipe","from":{"x":1,"y":2.5,"z":"ignored"},"to":null})",
         M{.type = "swipe", .from = M::Point{1, 2.5}}},
        {R"({"extra":{"type":5},"type":"tap","x":1,"X":"no"})", M{.type = "tap", .x = 1}},
        {R"({"type":"text","value":"a\/b\u00e9\n","text":""})",
         M{.type = "text", .value = "a/b\xC3\xA9\n", .text = ""}},
    };
    for (const auto& [json, expected] : cases) {
        EXPECT_EQ(M::decode(json), expected) << json;
    }
}

TEST(IncomingMessageDecode, ReadsEveryFieldUnderItsOwnKey) {
    const auto decoded = M::decode(R"({
        "type":"all","x":1,"y":2,"ms":3,"from":{"x":4,"y":5},"to":{"x":6,"y":7},
        "value":"v","text":"tx","key":"k","name":"n","url":"u","bundleId":"b1","bundleID":"b2",
        "fileName":"f","mime":"m","dataB64":"d","t":8,"viewerId":"vi","tier":"ti","rttMs":9,
        "lossPct":10.5,"decodeQueue":11,"jitterMs":12,"congestion":13.5,"prefer":"p","fps":14,
        "quality":0.5,"scale":0.25,"codec":"c","streaming":true})");
    const M::Point from{4, 5}, to{6, 7};
    const M all{"all", 1, 2,    3,    from, to,   "v", "tx", "k",  "n", "u", "b1", "b2", "f", "m",
                "d",   8, "vi", "ti", 9,    10.5, 11,  12,   13.5, "p", 14,  0.5,  0.25, "c", true};
    EXPECT_EQ(decoded, all);
}

TEST(IncomingMessageDecode, RejectsTheWholeFrame) {
    for (const char* json :
         {// Not one JSON object with a string type.
          "", "not json", R"([{"type":"ping"}])", R"({"type":"ping"} {})", R"({"t":5})",
          R"({"type":null})",
          // Integers: exact and within 64 signed bits; no strings or booleans.
          R"({"type":"p","t":1.5})", R"({"type":"p","t":1.0000000000000001})",
          R"({"type":"p","t":9223372036854775808})", R"({"type":"p","t":92233720368547758.08e3})",
          R"({"type":"p","t":-9223372036854775809})", R"({"type":"p","t":"5"})",
          R"({"type":"p","ms":true})",
          // Floats, strings and booleans take their own kind only.
          R"({"type":"tap","x":"10","y":20})", R"({"type":"text","value":5})",
          R"({"type":"s","streaming":1})", "{\"type\":\"\xff\"}", R"({"type":1e400})",
          R"({"type":"tap","x":1e400})", R"({"type":"swipe","from":{"x":1,"y":-1e400}})",
          R"({"type":"ping","pad":01e400})",
          // A point needs both coordinates as numbers.
          R"({"type":"swipe","from":{"x":1},"to":{"x":2,"y":3}})",
          R"({"type":"swipe","from":{"x":1,"y":2},"to":{"x":3}})",
          R"({"type":"swipe","from":{"x":"1","y":2}})", R"({"type":"swipe","to":5})"}) {
        EXPECT_FALSE(M::decode(json).has_value()) << json;
    }
}

TEST(Replies, EncodeCompactlyInKeyOrderAndDecodeBack) {
    EXPECT_EQ(PongMessage{}.encode(), R"({"type":"pong"})");
    EXPECT_EQ(LatencyPongMessage{}.encode(), R"({"type":"latency_pong","t":0})");
    EXPECT_EQ((LatencyPongMessage{INT64_MIN, "a/b\"c\n\x01\xC3\xA9"}.encode()),
              R"({"type":"latency_pong","t":-9223372036854775808,"viewerId":"a\/b\"c\n\u0001)"
              "\xC3\xA9\"}");
    EXPECT_FALSE((LatencyPongMessage{1, "\xff"}.encode().has_value()));

    const LatencyPongMessage full{42, "viewer/a"};
    EXPECT_EQ(LatencyPongMessage::decode(*full.encode()), full);
    EXPECT_EQ(LatencyPongMessage::decode(R"({"t":4.2e1,"pad":1e400})"), LatencyPongMessage{42});
    for (const char* bad : {R"({"viewerId":"v"})", R"({"t":1.5})", R"({"t":1,"viewerId":3})",
                            R"({"t":1.0000000000000001})"}) {
        EXPECT_FALSE(LatencyPongMessage::decode(bad).has_value()) << bad;
    }
}

TEST(ControlFrom, BuildsEachCommandWithItsDefaults) {
    const std::pair<const char*, std::optional<C>> cases[] = {
        {R"({"type":"tap"})", C{C::Tap{0, 0}}},
        {R"({"type":"double_tap","x":-5,"y":1e9})", C{C::DoubleTap{-5, 1e9}}},
        {R"({"type":"long_press","x":5,"y":6})", C{C::LongPress{5, 6, 500}}},
        {R"({"type":"touch_up","x":1})", C{C::TouchUp{1, 0}}},
        // A swipe needs both ends.
        {R"({"type":"swipe","from":{"x":1,"y":2}})", std::nullopt},
        {R"({"type":"swipe","to":{"x":1,"y":2}})", std::nullopt},
        {R"({"type":"swipe","from":{"x":1,"y":2},"to":{"x":3,"y":4}})",
         C{C::Swipe{{1, 2}, {3, 4}, 250}}},
        {R"({"type":"swipe","from":{"x":1,"y":2},"to":{"x":3,"y":4},"ms":0})",
         C{C::Swipe{{1, 2}, {3, 4}, 0}}},
        // Strings come verbatim from their own keys.
        {R"({"type":"text","text":"hi"})", C{C::Text{""}}},
        {R"({"type":"text","value":" hi \n"})", C{C::Text{" hi \n"}}},
        {R"({"type":"key","key":"enter","value":"x"})", C{C::Key{"enter"}}},
        {R"({"type":"button","name":" home "})", C{C::Button{" home "}}},
        {R"({"type":"open_url","url":"https://a.example/x y"})",
         C{C::OpenURL{"https://a.example/x y"}}},
        // The clipboard prefers a non-empty value over text.
        {R"({"type":"paste","value":"","text":"b"})", C{C::SetClipboard{"b"}}},
        {R"({"type":"paste","value":"a","text":"b"})", C{C::SetClipboard{"a"}}},
        // Bundle identifiers are trimmed, and either spelling serves.
        {R"({"type":"launch_app","bundleId":"  ","bundleID":" com.example.app\n"})",
         C{C::LaunchApp{"com.example.app"}}},
        {R"({"type":"launch_app","bundleId":"\tcom.a ","bundleID":"com.b"})",
         C{C::LaunchApp{"com.a"}}},
        {R"({"type":"push_media"})", C{C::PushMedia{"file", "application/octet-stream", ""}}},
        {R"({"type":"push_media","fileName":"a.png","mime":"image/png","dataB64":"!!"})",
         C{C::PushMedia{"a.png", "image/png", "!!"}}},
        // Other types, matched whole and case-sensitively, give nothing.
        {R"({"type":"TAP"})", std::nullopt},
        {R"({"type":"webrtc_offer"})", std::nullopt},
    };
    for (const auto& [json, expected] : cases) {
        const auto message = IncomingMessage::decode(json);
        ASSERT_TRUE(message.has_value()) << json;
        EXPECT_EQ(C::from(*message), expected) << json;
    }
}

TEST(RelayUrlPolicy, PlaintextOnlyOnThisComputerAndNoCredentials) {
    const std::pair<const char*, bool> rows[] = {
        {"wss://relay.example.org/r", true},
        {"ws://127.0.0.1:8080/relay", true},
        {"ws://127.200.3.4/relay", true},
        {"WS://LocalHost:81", true},
        {"ws://[::1]:9000", true},
        {"ws://relay.example.org/r", false},
        {"ws://128.0.0.1/r", false},
        {"ws://127.0.0.1.example.org/r", false},
        {"ws://127.0.0.256/r", false},
        {"ws://localhost.example.org/r", false},
        {"wss://user@relay.example.org", false},
        {"ws://user:pw@127.0.0.1", false},
        // For the link itself to judge: it logs "bad relay url" or fails to connect.
        {"not a url", true},
        {"https://relay.example.org", true},
    };
    for (const auto& [url, allowed] : rows) {
        EXPECT_EQ(!RelayUrlPolicy::refusal(url).has_value(), allowed) << url;
    }
}

}  // namespace
}  // namespace velmorand
