#include "velmorand/extension/Broadcast.h"

#include <gtest/gtest.h>

#include "../relay/FakeWebSocket.h"
#include "ManualMainQueue.h"
#include "RecordingLog.h"
#include "velmorand/extension/EventLines.h"
#include "velmorand/extension/RelayFrameSink.h"
#include "velmorand/relay/RelayClient.h"

namespace velmorand::extension {
namespace {

using Lines = std::vector<std::string>;

constexpr const char* kToken = "device-token-7f3a";

class BroadcastTest : public ::testing::Test {
  protected:
    // Connects and proves the link, so that replies go out.
    BroadcastTest() {
        broadcast_.begin(RelayBase{"ws://relay.test/r", RelayBase::Source::customUrl},
                         {{"h264", 30, 0.25, 0.5}, std::nullopt});
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
    std::vector<BroadcastState> published_;
    std::int64_t nowMs_ = 1'700'000'000'000;
    // Starting, pid 4242, view-only, nobody watching, never operated.
    BroadcastStatus status_{BroadcastState{BroadcastState::Phase::starting, 4242, true, 0, 0, ""},
                            [this](const BroadcastState& state) { published_.push_back(state); },
                            [this] { return nowMs_; }, queue_};
    RelayFrameSink frames_{*client_};
    PeerFanOut peers_{frames_};
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
         .clock = [] { return Broadcast::Clock::time_point{}; },
         .status = status_,
         .peers = peers_,
         .makePeer = {}},
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
        // What a viewer types is logged by its length, a key combination by name; URLs lose
        // what may be secret.
        {R"({"type":"key","key":"a"})", {"control: key 1 character — not carried out (view-only)"}},
        {R"({"type":"key","key":"shift+é"})",
         {"control: key 1 character — not carried out (view-only)"}},
        {R"({"type":"key","key":"hunter2"})",
         {"control: key 7 characters — not carried out (view-only)"}},
        {R"({"type":"key","key":"ctrl+c"})",
         {R"(control: key "ctrl+c" — not carried out (view-only))"}},
        {R"({"type":"key","key":"Enter"})",
         {R"(control: key "Enter" — not carried out (view-only))"}},
        {R"({"type":"open_url","url":"https://me:pw@bank.example/login?session=s3cret#x"})",
         {R"(control: openURL "https://bank.example/login" — not carried out (view-only))"}},
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
        // The offer's body stays out of the log.
        {R"({"type":"webrtc_offer","viewerId":"v1","sdp":"v=0 secret-ish body"})",
         {"webrtc: viewer v1: this device cannot stream peer-to-peer — it stays on relay frames"}},
    };
    for (const auto& [frame, lines] : cases) {
        EXPECT_EQ(deliver({frame}), lines) << frame;
    }
    ASSERT_EQ(opened_.size(), 1u);
    EXPECT_EQ(opened_[0].encode, (SharedConfig::EncodeValues{"jpeg", 10, 0.3, 0.4}));
    deliver({R"({"type":"ping"})"});
    EXPECT_EQ(task_->sent.back(), R"({"type":"pong"})");
}

// What the application, the command line and the indicator show follows the relay: each row's
// frame, then what was published because of it (nothing when a person would see no change).
TEST_F(BroadcastTest, PublishesWhatAPersonWouldSeeChange) {
    using Phase = BroadcastState::Phase;
    const auto seen = [](Phase phase, int viewers) {
        return BroadcastState{phase, 4242, true, viewers, 0, ""};
    };
    const auto interval = std::chrono::milliseconds(BroadcastStatus::kPublishIntervalMs);
    // Connecting and the open link came within one interval of the start: written as one.
    EXPECT_EQ(published_, (std::vector{seen(Phase::starting, 0)}));
    nowMs_ += BroadcastStatus::kPublishIntervalMs;
    queue_.advance(interval);
    EXPECT_EQ(published_, (std::vector{seen(Phase::starting, 0), seen(Phase::live, 0)}));
    const std::string longId(BroadcastStatus::kMaxViewerIdBytes + 1, 'v');
    const std::pair<std::string, std::vector<BroadcastState>> cases[] = {
        {R"({"type":"need_stream"})", {seen(Phase::live, 1)}},
        // Probes name their viewers: the one that asked, then a second.
        {R"({"type":"latency_ping","t":1,"viewerId":"v1"})", {}},
        {R"({"type":"latency_ping","t":2,"viewerId":"v2"})", {seen(Phase::live, 2)}},
        {R"({"type":"latency_ping","t":3,"viewerId":"v2"})", {}},
        {R"({"type":"latency_ping","t":4})", {}},
        {R"({"type":"latency_ping","t":5,"viewerId":")" + longId + R"("})", {}},
        {R"({"type":"stream_control","streaming":false})", {seen(Phase::paused, 2)}},
        {R"({"type":"stream_control"})", {seen(Phase::live, 2)}},
        // Commands are not carried out view-only: nobody is operating the screen.
        {R"({"type":"tap","x":10,"y":10})", {}},
    };
    for (const auto& [frame, expected] : cases) {
        published_.clear();
        nowMs_ += BroadcastStatus::kPublishIntervalMs;
        deliver({frame});
        EXPECT_EQ(published_, expected) << frame;
    }

    // A viewer flipping the stream as fast as it can: the first change at once, the rest as one
    // write an interval later, with the state they left.
    published_.clear();
    nowMs_ += BroadcastStatus::kPublishIntervalMs;
    for (int i = 0; i < 100; ++i) {
        deliver({R"({"type":"stream_control","streaming":false})", R"({"type":"need_stream"})"});
    }
    EXPECT_EQ(published_, (std::vector{seen(Phase::paused, 2)}));
    nowMs_ += BroadcastStatus::kPublishIntervalMs;
    queue_.advance(interval);
    EXPECT_EQ(published_, (std::vector{seen(Phase::paused, 2), seen(Phase::live, 2)}));

    // Viewers that went quiet are forgotten, down to the one the stream is wanted by.
    published_.clear();
    nowMs_ += BroadcastStatus::kViewerSilenceMs;
    queue_.advance(Broadcast::kStatusRefresh);
    EXPECT_EQ(published_, (std::vector{seen(Phase::live, 1)}));

    published_.clear();
    nowMs_ += BroadcastStatus::kPublishIntervalMs;
    task_->fail("reset by peer");
    queue_.runReady();
    EXPECT_EQ(published_, (std::vector{seen(Phase::connecting, 0)}));
}

// Commands are published at a grain, not one file write per pointer move, and a clock set back
// does not hide them; viewers' ids are kept to a bound, however many a relay invents.
TEST(BroadcastStatusTest, CommandsAndViewersArePublishedWithinBounds) {
    testing::ManualMainQueue queue;
    std::vector<BroadcastState> published;
    constexpr std::int64_t kFirst = 1'000'000;
    constexpr auto kGrain = BroadcastStatus::kOperatedGrainMs;
    std::int64_t now = kFirst - BroadcastStatus::kPublishIntervalMs;
    BroadcastStatus status(
        {BroadcastState::Phase::live, 7, false, 0, 0, ""},
        [&](const BroadcastState& state) { published.push_back(state); }, [&] { return now; },
        queue);
    const std::pair<std::int64_t, std::int64_t> commands[] = {
        // when the command comes → the time published (0: nothing new published)
        {kFirst, kFirst},
        {kFirst + kGrain - 1, 0},
        {kFirst + kGrain, kFirst + kGrain},
        {kFirst - 60'000, kFirst - 60'000},  // the clock was set back a minute
    };
    for (const auto& [at, expected] : commands) {
        published.clear();
        now = at;
        status.commandArrived();
        EXPECT_EQ(published.empty() ? 0 : published.back().operatedAtMs, expected) << at;
    }
    for (int i = 0; i < 1000; ++i) {
        ++now;
        status.viewerHeard("viewer-" + std::to_string(i));
    }
    EXPECT_EQ(status.state().viewers, static_cast<int>(BroadcastStatus::kMaxViewersKept));
}

// A viewer can send notices as fast as the link carries them; the commands must stay in the log.
TEST_F(BroadcastTest, ProbesAreAnsweredWithoutLoggingAndFloodsOfNoticesAreCounted) {
    deliver();
    EXPECT_TRUE(deliver({R"({"type":"ping"})", R"({"type":"latency_ping","t":12,"viewerId":"v1"})",
                         R"({"type":"device_online"})"})
                    .empty());
    ASSERT_EQ(task_->sent.size(), 2u);
    EXPECT_EQ(task_->sent[0], R"({"type":"pong"})");
    EXPECT_NE(task_->sent[1].find("latency_pong"), std::string::npos);

    for (int i = 0; i < 1000; ++i) {
        for (const auto* frame : {R"({"type":"request_idr"})",
                                  R"({"type":"qos","rttMs":80,"lossPct":1.5,"tier":"high"})",
                                  i == 500 ? R"({"type":"open_url","url":"https://x.org/?q"})"
                                           : R"({"type":"ping"})"}) {
            ASSERT_TRUE(task_->deliverText(frame));
            queue_.runReady();
        }
    }
    queue_.advance(NoticeThrottle::kInterval);
    const auto lines = deliver();
    const auto count = [&lines](const std::string& prefix) {
        return std::count_if(lines.begin(), lines.end(),
                             [&](const std::string& line) { return line.starts_with(prefix); });
    };
    EXPECT_EQ(count("request_idr: key frame requested"), 5);
    EXPECT_EQ(count(R"(qos #1: rtt=80ms loss=1.5% tier="high" decodeQueue=0 jitter=0ms)"), 1);
    EXPECT_EQ(count("qos #"), 5);
    EXPECT_EQ(count(R"(control: openURL "https://x.org/" — not carried out (view-only))"), 1);
    EXPECT_EQ(count("request_idr: 995 more in the last 10 s, not logged one by one"), 1);
    EXPECT_EQ(count("qos: 995 more in the last 10 s, not logged one by one"), 1);
    EXPECT_EQ(lines.size(), 13u);
}

}  // namespace
}  // namespace velmorand::extension
