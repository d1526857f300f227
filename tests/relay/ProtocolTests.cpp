#include "velmorand/relay/Protocol.h"

#include <cstdint>
#include <functional>
#include <limits>

#include <gtest/gtest.h>

namespace velmorand {
namespace {

IncomingMessage message(std::string type, const std::function<void(IncomingMessage&)>& fill = {}) {
    IncomingMessage m;
    m.type = std::move(type);
    if (fill) {
        fill(m);
    }
    return m;
}

struct DecodeCase {
    const char* json;
    IncomingMessage expected;
};

TEST(IncomingMessageDecode, AcceptsWhatTheRulesAllow) {
    constexpr auto kMin = std::numeric_limits<std::int64_t>::min();
    constexpr auto kMax = std::numeric_limits<std::int64_t>::max();
    const DecodeCase cases[] = {
        {R"({"type":"ping"})", message("ping")},
        {R"({"type":""})", message("")},
        {R"({"type":"tap","x":10,"y":null})", message("tap", [](auto& m) { m.x = 10; })},
        {R"({"type":"tap","x":-1.5e3,"y":18446744073709551615})",
         message("tap",
                 [](auto& m) {
                     m.x = -1500;
                     m.y = 18446744073709551615.0;
                 })},
        {R"({"type":"p","t":3.0,"ms":1e2,"rttMs":-0.0})", message("p",
                                                                  [](auto& m) {
                                                                      m.t = 3;
                                                                      m.ms = 100;
                                                                      m.rttMs = 0;
                                                                  })},
        {R"({"type":"p","t":9223372036854775807,"ms":-9223372036854775808})", message("p",
                                                                                      [&](auto& m) {
                                                                                          m.t =
                                                                                              kMax;
                                                                                          m.ms =
                                                                                              kMin;
                                                                                      })},
        {R"({"type":"p","t":-9.223372036854775808e18})",
         message("p", [&](auto& m) { m.t = kMin; })},
        {R"({"type":"swipe","from":{"x":1,"y":2.5,"z":"ignored"},"to":null})",
         message("swipe",
                 [](auto& m) {
                     m.from = IncomingMessage::Point{1, 2.5};
                 })},
        {R"({"type":"launch_app","bundleId":"a","bundleID":"b"})", message("launch_app",
                                                                           [](auto& m) {
                                                                               m.bundleId = "a";
                                                                               m.bundleID = "b";
                                                                           })},
        {R"({"extra":{"type":5,"x":[1,{"y":"no"}]},"list":[[],{}],"type":"tap","x":1,"X":"no"})",
         message("tap", [](auto& m) { m.x = 1; })},
        {R"({"type":"text","value":"a\/b\u00e9\n","text":""})", message("text",
                                                                        [](auto& m) {
                                                                            m.value =
                                                                                "a/b\xC3\xA9\n";
                                                                            m.text = "";
                                                                        })},
        {R"({"type":"stream_control","streaming":false})",
         message("stream_control", [](auto& m) { m.streaming = false; })},
        {" {\"type\" : \"ping\" } \n", message("ping")},
    };
    for (const auto& c : cases) {
        const auto decoded = IncomingMessage::decode(c.json);
        ASSERT_TRUE(decoded.has_value()) << c.json;
        EXPECT_EQ(*decoded, c.expected) << c.json;
    }
}

TEST(IncomingMessageDecode, ReadsEveryFieldUnderItsOwnKey) {
    const auto decoded = IncomingMessage::decode(R"({
        "type":"all","x":1,"y":2,"ms":3,"from":{"x":4,"y":5},"to":{"x":6,"y":7},
        "value":"v","text":"tx","key":"k","name":"n","url":"u","bundleId":"b1","bundleID":"b2",
        "fileName":"f","mime":"m","dataB64":"d","t":8,"viewerId":"vi","tier":"ti","rttMs":9,
        "lossPct":10.5,"decodeQueue":11,"jitterMs":12,"congestion":13.5,"prefer":"p","fps":14,
        "quality":0.5,"scale":0.25,"codec":"c","streaming":true})");
    ASSERT_TRUE(decoded.has_value());
    const auto& m = *decoded;
    EXPECT_EQ(m.type, "all");
    EXPECT_EQ(m.x, 1);
    EXPECT_EQ(m.y, 2);
    EXPECT_EQ(m.ms, 3);
    EXPECT_EQ(m.from, (IncomingMessage::Point{4, 5}));
    EXPECT_EQ(m.to, (IncomingMessage::Point{6, 7}));
    EXPECT_EQ(m.value, "v");
    EXPECT_EQ(m.text, "tx");
    EXPECT_EQ(m.key, "k");
    EXPECT_EQ(m.name, "n");
    EXPECT_EQ(m.url, "u");
    EXPECT_EQ(m.bundleId, "b1");
    EXPECT_EQ(m.bundleID, "b2");
    EXPECT_EQ(m.fileName, "f");
    EXPECT_EQ(m.mime, "m");
    EXPECT_EQ(m.dataB64, "d");
    EXPECT_EQ(m.t, 8);
    EXPECT_EQ(m.viewerId, "vi");
    EXPECT_EQ(m.tier, "ti");
    EXPECT_EQ(m.rttMs, 9);
    EXPECT_EQ(m.lossPct, 10.5);
    EXPECT_EQ(m.decodeQueue, 11);
    EXPECT_EQ(m.jitterMs, 12);
    EXPECT_EQ(m.congestion, 13.5);
    EXPECT_EQ(m.prefer, "p");
    EXPECT_EQ(m.fps, 14);
    EXPECT_EQ(m.quality, 0.5);
    EXPECT_EQ(m.scale, 0.25);
    EXPECT_EQ(m.codec, "c");
    EXPECT_EQ(m.streaming, true);
}

TEST(IncomingMessageDecode, RejectsTheWholeFrame) {
    const char* const groups[][8] = {
        // Not one JSON object, or no string type.
        {"", "not json", R"([{"type":"ping"}])", R"("ping")", R"({"type":"ping"} {})", R"({"t":5})",
         R"({"type":null})", R"({"type":5})"},
        // Integer fields: no fractions, nothing past 64 signed bits, no strings or booleans.
        {R"({"type":"latency_ping","t":1.5})", R"({"type":"p","t":9223372036854775808})",
         R"({"type":"p","t":-9223372036854775809})", R"({"type":"p","t":1e19})",
         R"({"type":"p","t":"5"})", R"({"type":"p","ms":true})", R"({"type":"p","rttMs":[1]})",
         R"({"type":"p","t":9.3e18})"},
        // Float, string and boolean fields take their own kind only.
        {R"({"type":"tap","x":"10","y":20})", R"({"type":"tap","x":true})",
         R"({"type":"tap","y":{}})", R"({"type":"text","value":5})",
         R"({"type":"text","value":["a"]})", R"({"type":"s","streaming":1})",
         R"({"type":"s","streaming":"true"})", R"({"type":"p","tier":false})"},
        // A point needs both coordinates as numbers.
        {R"({"type":"swipe","from":{"x":1},"to":{"x":2,"y":3}})",
         R"({"type":"swipe","from":{"x":"1","y":2}})", R"({"type":"swipe","to":{"x":null,"y":2}})",
         R"({"type":"swipe","from":[1,2]})", R"({"type":"swipe","to":5})",
         R"({"type":"swipe","to":{}})", R"({"type":"swipe","from":{"x":1,"y":{"v":1}}})",
         "{\"type\":\"\xff\"}"},
    };
    for (const auto& group : groups) {
        for (const char* json : group) {
            EXPECT_FALSE(IncomingMessage::decode(json).has_value()) << json;
        }
    }
}

TEST(ReplyEncoding, WritesCompactJsonInKeyOrder) {
    const struct {
        LatencyPongMessage reply;
        const char* expected;
    } cases[] = {
        {{}, R"({"type":"latency_pong","t":0})"},
        {{42, "viewer-a"}, R"({"type":"latency_pong","t":42,"viewerId":"viewer-a"})"},
        {{-7, ""}, R"({"type":"latency_pong","t":-7,"viewerId":""})"},
        {{std::numeric_limits<std::int64_t>::min(), "a/b\"c\\d\n\t\x01\x1f\xC3\xA9"},
         R"({"type":"latency_pong","t":-9223372036854775808,"viewerId":"a\/b\"c\\d\n\t\u0001\u001f)"
         "\xC3\xA9\"}"},
    };
    EXPECT_EQ(PongMessage{}.encode(), R"({"type":"pong"})");
    for (const auto& c : cases) {
        EXPECT_EQ(c.reply.encode(), c.expected);
    }
    EXPECT_FALSE((LatencyPongMessage{1, "\xff"}.encode().has_value()));
}

TEST(ReplyDecoding, TakesTheRepliesBack) {
    EXPECT_TRUE(PongMessage::decode(R"({"type":"other","x":1})").has_value());
    EXPECT_FALSE(PongMessage::decode("[]").has_value());

    const LatencyPongMessage full{42, "viewer/a"};
    EXPECT_EQ(LatencyPongMessage::decode(*full.encode()), full);
    EXPECT_EQ(LatencyPongMessage::decode(R"({"type":"x","t":7.0,"viewerId":null})"),
              (LatencyPongMessage{7, std::nullopt}));
    for (const char* bad : {R"({"viewerId":"v"})", R"({"t":1.5})", R"({"t":"1"})",
                            R"({"t":1,"viewerId":3})", R"({"t":9223372036854775808})"}) {
        EXPECT_FALSE(LatencyPongMessage::decode(bad).has_value()) << bad;
    }
}

}  // namespace
}  // namespace velmorand
