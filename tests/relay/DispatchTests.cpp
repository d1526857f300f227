#include <gtest/gtest.h>

#include "RelayHarness.h"

namespace velmorand::testing {
namespace {

struct DispatchCase {
    const char* frame;
    std::vector<std::string> events;
    std::vector<std::string> sent = {};
};

class Dispatch : public ::testing::Test {
  protected:
    void SetUp() override {
        h.recordAll();
        socket = &h.connected();
    }

    void expectRows(const std::vector<DispatchCase>& cases) {
        for (const auto& c : cases) {
            h.events.clear();
            socket->sent.clear();
            h.client->handleText(c.frame);
            EXPECT_EQ(h.events, c.events) << c.frame;
            EXPECT_EQ(socket->sent, c.sent) << c.frame;
        }
    }

    RelayHarness h;
    FakeWebSocketTask* socket = nullptr;
};

TEST_F(Dispatch, AnswersProbes) {
    expectRows({
        {R"({"type":"ping","t":5})", {}, {R"({"type":"pong"})"}},
        {R"({"type":"latency_ping"})", {}, {R"({"type":"latency_pong","t":0})"}},
        {R"({"type":"latency_ping","t":42,"viewerId":"viewer/a"})",
         {},
         {R"({"type":"latency_pong","t":42,"viewerId":"viewer\/a"})"}},
        {R"({"type":"latency_ping","t":1.5})", {}},
    });
}

TEST_F(Dispatch, StreamRequests) {
    expectRows({
        {R"({"type":"need_stream"})", {"needStream -"}},
        {R"({"type":"need_stream","prefer":"webrtc"})", {"needStream webrtc"}},
        {R"({"type":"request_idr","x":1})", {"requestIdr"}},
        {R"({"type":"stream_control"})", {"streamControl on"}},
        {R"({"type":"stream_control","streaming":false})", {"streamControl off"}},
        {R"({"type":"stream_control","streaming":null})", {"streamControl on"}},
    });
}

TEST_F(Dispatch, EncodeSettingsRoundHalvesAwayFromZero) {
    expectRows({
        {R"({"type":"encode_settings","fps":29.5,"quality":0.4})", {"encodeSettings 30 0.4 - -"}},
        {R"({"type":"encode_settings","fps":-2.5})", {"encodeSettings -3 - - -"}},
        {R"({"type":"encode_settings","fps":24.49,"scale":0.5,"codec":"h264"})",
         {"encodeSettings 24 - 0.5 h264"}},
        {R"({"type":"encode_settings"})", {"encodeSettings - - - -"}},
    });
}

// A missing tier means "auto" for quality but nothing for qos; an empty one differs too.
TEST_F(Dispatch, QualityAndQosTiers) {
    expectRows({
        {R"({"type":"stream_quality"})", {"streamQuality 'auto'"}},
        {R"({"type":"stream_quality","tier":""})", {"streamQuality ''"}},
        {R"({"type":"stream_quality","tier":"high"})", {"streamQuality 'high'"}},
        {R"({"type":"qos","tier":""})", {"qos 0 0 - 0 0"}},
        {R"({"type":"qos"})", {"qos 0 0 - 0 0"}},
        {R"({"type":"qos","rttMs":120,"lossPct":1.5,"tier":"low","decodeQueue":3,"jitterMs":7})",
         {"qos 120 1.5 low 3 7"}},
        {R"({"type":"relay_qos"})", {"relayQos 0"}},
        {R"({"type":"relay_qos","congestion":0.75})", {"relayQos 0.75"}},
    });
}

TEST_F(Dispatch, NoticesAndUndecodableFramesAreSilent) {
    expectRows({
        {R"({"type":"error","message":"x"})", {}},
        {R"({"type":"device_online"})", {}},
        {R"({"type":"device_offline"})", {}},
        {R"({"type":"frames_dropped","count":3})", {}},
        {R"({"type":"tap","x":"10","y":20})", {}},
        {R"({"type":"need_apps"})", {}},
        {R"({"type":"Ping"})", {}},
        {"garbage", {}},
    });
    EXPECT_TRUE(h.log.lines().empty());
}

TEST_F(Dispatch, ControlsCarryTheirPayload) {
    expectRows({
        {R"({"type":"tap","x":1,"y":2})", {"control tap"}},
        {R"({"type":"launch_app","bundleID":" com.a "})", {"control launchApp"}},
    });
    EXPECT_EQ(h.controls, (std::vector<Control>{Control{Control::Tap{1, 2}},
                                                Control{Control::LaunchApp{"com.a"}}}));
}

TEST_F(Dispatch, WebRtcFastPathBySubstring) {
    expectRows({
        {R"({"type": "webrtc_offer","sdp":"v=0"})", {"webrtc sdp type"}},
        {R"({"type":"webrtc_ice","candidate":{"a":1},"n":null})", {"webrtc candidate n type"}},
        // A space before the colon is not matched, and no row handles the type.
        {R"({"type" : "webrtc_offer"})", {}},
        // Not consumed (broken, or not an object): decoded as usual.
        {R"({"type":"webrtc_offer",)", {}},
        {R"([{"type":"webrtc_offer"}])", {}},
        // The substring anywhere hands the whole frame to signalling.
        {R"({"type":"tap","x":1,"inner":{"type":"webrtc_x"}})", {"webrtc inner type x"}},
        {R"({"type":"ping","inner":{"type":"webrtc_x"}})", {"webrtc inner type"}},
    });
}

TEST_F(Dispatch, UnsetCallbacksDropTheirFrames) {
    h.client->onWebRtcSignal = nullptr;
    h.client->onControl = nullptr;
    h.client->onEncodeSettings = nullptr;
    expectRows({
        // Without signalling, a known type under the substring is handled by its own row.
        {R"({"type":"ping","inner":{"type":"webrtc_x"}})", {}, {R"({"type":"pong"})"}},
        {R"({"type":"need_stream","note":{"type":"webrtc_"}})", {"needStream -"}},
        {R"({"type":"webrtc_offer","sdp":"v=0"})", {}},
        {R"({"type":"tap","x":1,"y":2})", {}},
        // The frame rate is only converted for a listener.
        {R"({"type":"encode_settings","fps":1e300})", {}},
    });
}

TEST(DispatchDeath, UnrepresentableFrameRateStopsTheProcess) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    for (const char* fps : {"1e19", "9223372036854775808", "-9.3e18", "1e308"}) {
        RelayHarness h;
        h.recordAll();
        const std::string frame = std::string(R"({"type":"encode_settings","fps":)") + fps + "}";
        EXPECT_DEATH(h.client->handleText(frame), "") << fps;
    }
}

TEST(DispatchEdges, LowestFrameRateStillConverts) {
    RelayHarness h;
    h.recordAll();
    h.client->handleText(R"({"type":"encode_settings","fps":-9223372036854775808})");
    EXPECT_EQ(h.events, std::vector<std::string>{"encodeSettings -9223372036854775808 - - -"});
}

}  // namespace
}  // namespace velmorand::testing
