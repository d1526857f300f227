#include "velmorand/extension/Broadcast.h"

#include <gtest/gtest.h>

#include "../relay/FakeWebSocket.h"
#include "ManualMainQueue.h"
#include "RecordingLog.h"
#include "velmorand/extension/EventLines.h"
#include "velmorand/relay/RelayClient.h"

namespace velmorand::extension {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

constexpr const char* kToken = "device-token-7f3a";

class BroadcastTest : public ::testing::Test {
  protected:
    // Connects and proves the link, so that replies go out.
    BroadcastTest() {
        SharedConfig::EncodeValues encode;
        encode.codec = "h264";
        encode.fps = 30;
        encode.quality = 0.25;
        broadcast_.begin(RelayBase{"ws://relay.test/r", RelayBase::Source::customUrl},
                         {encode, std::nullopt});
        EXPECT_EQ(sockets_.tasks.size(), 1u);
        task_ = sockets_.tasks.back();
        sockets_.open(task_);
        queue_.runReady();
    }

    // Delivers the frames and returns the lines logged since the last call.
    Lines deliver(std::initializer_list<std::string> frames = {}) {
        for (const auto& frame : frames) {
            EXPECT_TRUE(task_->deliverText(frame)) << frame;
            queue_.runReady();
        }
        const auto all = log_.lines();
        Lines fresh(all.begin() + static_cast<std::ptrdiff_t>(seen_), all.end());
        seen_ = all.size();
        return fresh;
    }

    testing::ManualMainQueue queue_;
    testing::RecordingLog log_;
    testing::FakeWebSockets sockets_;
    std::shared_ptr<RelayClient> client_ = RelayClient::make(
        "ws://relay.test/r", kToken,
        {.mainQueue = queue_, .log = log_, .makeSession = sockets_.factory(), .random = [] {
             return 0.5;
         }});
    std::vector<StreamConfig> opened_;
    Broadcast broadcast_{
        {.client = *client_,
         .log = log_,
         .mainQueue = queue_,
         // A desktop without X11.
         .openStream = [this](const StreamConfig& config, ScreenStream::Events)
             -> std::variant<std::unique_ptr<ScreenStream>, std::string> {
             opened_.push_back(config);
             return std::string("screen capture needs an X11 display (DISPLAY is not set)");
         },
         .openRemoteControl = {},
         .clock = [] { return Broadcast::Clock::time_point{}; }},
        [](int) {}};
    std::shared_ptr<testing::FakeWebSocketTask> task_;
    std::size_t seen_ = 0;
};

TEST_F(BroadcastTest, EachViewerEventIsLoggedAndStreamRequestsApplyToTheLiveSettings) {
    deliver();
    const std::pair<std::string, Lines> cases[] = {
        // The browser tests see the pointer's and the text's lines; these only the relay sends.
        {R"({"type":"push_media","fileName":"a.png","mime":"image/png","dataB64":"QUJD"})",
         {R"(control: pushMedia fileName="a.png" mime="image/png" base64 4 bytes — not carried out (view-only))"}},
        {R"({"type":"encode_settings","fps":29.5,"quality":0.4})",
         {"encode_settings: fps=30 quality=0.4 scale=(none) codec=(none)",
          "stream: h264, 30 fps, quality 40%, scale 50%"}},
        {R"({"type":"stream_quality","tier":"low"})",
         {R"(stream_quality: tier "low")", "stream: h264, 10 fps, quality 30%, scale 40%"}},
        {R"({"type":"stream_quality","tier":""})",
         {R"(stream_quality: tier "")", R"(stream_quality: unknown tier "" ignored)"}},
        {R"({"type":"need_stream","prefer":"jpeg"})",
         {R"(need_stream (prefer "jpeg"))",
          "stream: screen capture needs an X11 display (DISPLAY is not set) — no picture; the "
          "relay link stays up"}},
        // The reason is given once; the link and the probes go on.
        {R"({"type":"need_stream"})", {"need_stream"}},
        {R"({"type":"stream_control","streaming":false})", {"stream_control: off"}},
        {R"({"type":"stream_control"})", {"stream_control: on"}},
        {R"({"type":"request_idr"})", {"request_idr: key frame requested"}},
        {R"({"type":"relay_qos","congestion":0.75})", {"relay_qos: congestion=0.75"}},
        {R"({"type":"webrtc_offer","sdp":"v=0 secret-ish body"})",
         {R"(webrtc: "webrtc_offer" (no WebRTC in this desktop build))"}},
    };
    for (const auto& [frame, lines] : cases) {
        EXPECT_EQ(deliver({frame}), lines) << frame;
    }
    ASSERT_EQ(opened_.size(), 1u);
    EXPECT_EQ(opened_[0].encode, (SharedConfig::EncodeValues{"jpeg", 10, 0.3, 0.4}));
    deliver({R"({"type":"ping"})"});
    EXPECT_EQ(task_->sent.back(), R"({"type":"pong"})");
}

TEST_F(BroadcastTest, ProbesAreAnsweredWithoutLoggingAndQualityReportsAreSampled) {
    deliver();
    EXPECT_TRUE(deliver({R"({"type":"ping"})", R"({"type":"latency_ping","t":12,"viewerId":"v1"})",
                         R"({"type":"device_online"})"})
                    .empty());
    ASSERT_EQ(task_->sent.size(), 2u);
    EXPECT_EQ(task_->sent[0], R"({"type":"pong"})");
    EXPECT_NE(task_->sent[1].find("latency_pong"), std::string::npos);

    const auto reports = 2 * Broadcast::kQosEvery + 1;
    for (std::uint64_t i = 0; i < reports; ++i) {
        task_->deliverText(R"({"type":"qos","rttMs":80,"lossPct":1.5,"tier":"high"})");
        queue_.runReady();
    }
    const auto lines = deliver();
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], R"(qos #1: rtt=80ms loss=1.5% tier="high" decodeQueue=0 jitter=0ms)");
    EXPECT_EQ(lines[1].rfind("qos #" + std::to_string(Broadcast::kQosEvery + 1) + ":", 0), 0u);
    EXPECT_EQ(lines[2].rfind("qos #" + std::to_string(reports) + ":", 0), 0u);
}

}  // namespace
}  // namespace velmorand::extension
