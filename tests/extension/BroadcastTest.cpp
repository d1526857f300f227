#include "velmorand/extension/Broadcast.h"

#include <gtest/gtest.h>

#include "../relay/FakeWebSocket.h"
#include "../stream/StreamFakes.h"
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

    // A screen of fakes when `screen_` is set, else a desktop without X11.
    std::variant<std::unique_ptr<ScreenStream>, std::string> openStream(
        const StreamConfig& config, ScreenStream::Events events) {
        opened_.push_back(config);
        if (!screen_) {
            return std::string("screen capture needs an X11 display (DISPLAY is not set)");
        }
        return std::make_unique<ScreenStream>(
            ScreenStream::Services{.capture = screen_->capture(),
                                   .converter = std::make_unique<testing::FakeConverter>(),
                                   .jpeg = std::make_unique<testing::FakeJpeg>(),
                                   .makeH264 = testing::FakeH264Session::factory(h264_),
                                   .sink = sink_},
            std::move(events), config);
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
    std::vector<int> stops_;
    std::optional<testing::FakeScreen> screen_;
    testing::FakeSink sink_;
    testing::FakeH264Session::Script h264_;
    std::vector<StreamConfig> opened_;
    Broadcast::Clock::time_point now_{};
    Broadcast broadcast_{{.client = *client_,
                          .log = log_,
                          .mainQueue = queue_,
                          .openStream =
                              [this](const StreamConfig& config, ScreenStream::Events events) {
                                  return openStream(config, std::move(events));
                              },
                          .openRemoteControl = {},
                          .clock = [this] { return now_; }},
                         [this](int status) { stops_.push_back(status); }};
    std::shared_ptr<testing::FakeWebSocketTask> task_;
    std::size_t seen_ = 0;
};

TEST_F(BroadcastTest, BeginLogsTheRelayAndEncodeThenConnectsWithTheToken) {
    EXPECT_EQ(deliver(), (Lines{"relay: ws://relay.test/r/device (custom URL)",
                                "encode: h264, 30 fps, quality 25%, scale 50%",
                                "view-only: viewers' commands are logged, not carried out",
                                "relay: link open"}));
    EXPECT_EQ(task_->request.url, "ws://relay.test/r/device");
    EXPECT_EQ(task_->request.headers,
              (std::vector<std::pair<std::string, std::string>>{{"x-device-token", kToken}}));
}

TEST_F(BroadcastTest, EachViewerEventIsLoggedAndStreamRequestsApplyToTheLiveSettings) {
    deliver();
    const std::pair<std::string, Lines> cases[] = {
        {R"({"type":"tap","x":10,"y":20.5})",
         {"control: tap x=10 y=20.5 — not carried out (view-only)"}},
        {R"({"type":"swipe","from":{"x":1,"y":2},"to":{"x":3,"y":4},"ms":300})",
         {"control: swipe from x=1 y=2 to x=3 y=4 ms=300 — not carried out (view-only)"}},
        {R"({"type":"text","value":"hi \"there\"\n"})",
         {"control: text 11 characters — not carried out (view-only)"}},
        {R"({"type":"open_url","url":"https://example.org"})",
         {R"(control: openURL "https://example.org" — not carried out (view-only))"}},
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

TEST_F(BroadcastTest, StreamsWhenAskedAndSlowsDownForAStrugglingViewer) {
    screen_.emplace();
    deliver({R"({"type":"need_stream","prefer":"jpeg"})"});
    const auto first = sink_.await(1);
    ASSERT_EQ(first.size(), 1u);
    EXPECT_EQ(first[0].header.codec, FrameCodec::jpeg);
    EXPECT_EQ(opened_.size(), 1u);

    // A second viewer: the same stream, and a key frame for it even though nothing changed.
    deliver({R"({"type":"need_stream"})"});
    EXPECT_EQ(sink_.await(2).size(), 2u);
    EXPECT_EQ(opened_.size(), 1u);

    const auto qos = [this](std::chrono::seconds at, const char* frame) {
        now_ = Broadcast::Clock::time_point{} + at;
        return deliver({frame});
    };
    EXPECT_EQ(qos(1s, R"({"type":"qos","decodeQueue":4,"lossPct":0.5})"),
              (Lines{"qos #1: rtt=0ms loss=0.5% tier=(none) decodeQueue=4 jitter=0ms",
                     "stream: a viewer is falling behind (decode queue 4, loss 0.5%) — 30 fps "
                     "down to 15"}));
    EXPECT_TRUE(qos(3s, R"({"type":"qos"})").empty());
    EXPECT_EQ(qos(6s, R"({"type":"qos"})"),
              Lines{"stream: viewers keep up again — back to 30 fps"});
    const auto lines = log_.lines();
    EXPECT_NE(
        std::find(lines.begin(), lines.end(), "stream: new jpeg stream, 32x24 from a 64x48 screen"),
        lines.end());
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

TEST_F(BroadcastTest, RejectedTokenStopsOnceWithStatusOneAndNoLineCarriesTheToken) {
    deliver({R"({"type":"key","key":"Enter"})", R"({"type":"launch_app","bundleId":"com.x"})"});
    sockets_.close(task_, 4401, "unauthorized");
    EXPECT_TRUE(stops_.empty());  // nothing happens until the main queue runs
    queue_.runReady();
    EXPECT_EQ(stops_, std::vector<int>{1});
    const auto lines = deliver();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "[relay-client] closed code=4401 unauthorized");
    EXPECT_EQ(lines.back(), EventLines::kAuthRejected);
    // A second rejection before the program ends changes nothing.
    client_->connect();
    sockets_.close(sockets_.tasks.back(), 4401, "unauthorized");
    queue_.runReady();
    EXPECT_EQ(stops_, std::vector<int>{1});
    EXPECT_GE(log_.lines().size(), 7u);
    for (const auto& line : log_.lines()) {
        EXPECT_EQ(line.find(kToken), std::string::npos) << line;
    }
}

}  // namespace
}  // namespace velmorand::extension
