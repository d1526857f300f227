#include "velmorand/relay/Protocol.h"

#include <cstdint>

#include <gtest/gtest.h>

// Expected records name only the fields they set.
#pragma GCC diagnostic ignored "-Wmissing-field-initializers"

namespace velmorand {
namespace {

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

}  // namespace
}  // namespace velmorand
