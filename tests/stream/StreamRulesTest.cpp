// The stream's rules on their own: the byte budget, the pacing, the viewers' live settings and
// the H.264 encoder record.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <limits>

#include "StreamFakes.h"
#include "velmorand/stream/FrameBudget.h"
#include "velmorand/stream/FramePacer.h"
#include "velmorand/stream/H264Encoder.h"
#include "velmorand/stream/LiveSettings.h"

namespace velmorand {
namespace {

using namespace std::chrono_literals;
using Lines = std::vector<std::string>;

TEST(FrameBudget, HalfASecondOfTheStreamButNeverUnder256KiB) {
    struct Row {
        std::int64_t fps;
        std::vector<std::int64_t> frames;
        std::vector<std::int64_t> keyFrames;
        std::int64_t limit;
        std::int64_t expectedDelta;
        std::int64_t expectedKey;
    };
    const Row rows[] = {
        {20, {}, {}, 256 * 1024, 0, 0},
        {20, {100'000}, {}, 1'000'000, 100'000, 100'000},
        // Key frames neither set the rate nor the delta estimate, once there are other frames.
        {20, {100'000}, {900'000}, 1'000'000, 100'000, 900'000},
        // One frame in eight moves the average.
        {20, {100'000, 180'000}, {}, 1'100'000, 110'000, 110'000},
    };
    for (const auto& row : rows) {
        FrameBudget budget;
        budget.setFrameRate(row.fps);
        for (auto bytes : row.frames) {
            budget.sent(bytes, false);
        }
        for (auto bytes : row.keyFrames) {
            budget.sent(bytes, true);
        }
        EXPECT_EQ(budget.limit(), row.limit) << row.fps;
        EXPECT_EQ(budget.expected(false), row.expectedDelta);
        EXPECT_EQ(budget.expected(true), row.expectedKey);
        EXPECT_TRUE(budget.hasRoom(budget.limit() - budget.expected(false), false));
        EXPECT_FALSE(budget.hasRoom(budget.limit() - budget.expected(false) + 1, false));
        EXPECT_TRUE(budget.hasRoom(0, true));
        EXPECT_EQ(budget.hasRoom(1, true), 1 + row.expectedKey <= row.limit);
    }
}

TEST(FramePacer, CapturesOnlyForAChangeOrARequestAndAtMostAtTheFrameRate) {
    using Kind = FramePacer::Decision::Kind;
    const auto t0 = FramePacer::Clock::time_point{} + 100s;
    struct Row {
        std::int64_t fps;
        std::chrono::milliseconds sinceLast;
        bool changed;
        bool wanted;
        Kind kind;
        std::chrono::milliseconds waitFor;
    };
    const Row rows[] = {
        {20, 0ms, false, false, Kind::waitForChange, 0ms},
        {20, 50ms, true, false, Kind::captureNow, 0ms},
        {20, 10ms, false, true, Kind::waitUntil, 27ms},
        // Up to a quarter of the interval early.
        {20, 37ms, true, false, Kind::waitUntil, 0ms},
        {20, 38ms, true, false, Kind::captureNow, 0ms},
        // Rates outside 1 to 60 are held to those bounds.
        {0, 700ms, true, false, Kind::waitUntil, 50ms},
        {240, 12ms, true, false, Kind::waitUntil, 0ms},
        {240, 13ms, true, false, Kind::captureNow, 0ms},
    };
    for (const auto& row : rows) {
        FramePacer pacer;
        pacer.setFrameRate(row.fps);
        pacer.captured(t0);
        const auto decision = pacer.decide(t0 + row.sinceLast, row.changed, row.wanted);
        EXPECT_EQ(decision.kind, row.kind) << row.fps << " fps, " << row.sinceLast.count();
        if (row.kind == Kind::waitUntil) {
            const std::chrono::duration<double, std::milli> wait =
                decision.until - (t0 + row.sinceLast);
            EXPECT_NEAR(wait.count(), static_cast<double>(row.waitFor.count()), 0.7);
        }
    }
    FramePacer fresh;
    EXPECT_EQ(fresh.decide(t0, true, false).kind, Kind::captureNow);
}

// A minute of a screen painted at a steady rate, each paint up to `lateness` after its time,
// streamed as the stream does: a paint is taken when the pacer allows, or as soon as it does. The
// first frame, asked for by a viewer, falls between two paints; after a second the waits are
// what they will stay.
TEST(FramePacer, TakesPaintsAsTheyComeYetNeverExceedsTheFrameRate) {
    struct Row {
        std::int64_t fps;
        double sceneHz;
        std::chrono::microseconds lateness;
        std::chrono::microseconds longestWait;
    };
    const Row rows[] = {
        // At the frame rate: each paint is taken as it comes, late or not.
        {30, 30, 5ms, 0ms},
        {60, 60, 4ms, 0ms},
        {20, 20, 0ms, 0ms},
        // Faster than the frame rate: once a slot.
        {30, 60, 5ms, 25ms},
        {30, 240, 0ms, 25ms},
        {60, 144, 1ms, 13ms},
        // Slower: every paint, at once.
        {30, 25, 5ms, 0ms},
    };
    constexpr auto kMinute = 60s;
    for (const auto& row : rows) {
        FramePacer pacer;
        pacer.setFrameRate(row.fps);
        const auto start = FramePacer::Clock::time_point{} + 100s;
        const auto period = std::chrono::duration_cast<FramePacer::Clock::duration>(
            std::chrono::duration<double>(1.0 / row.sceneHz));
        std::uint64_t lateSeed = 7;
        pacer.captured(start - period / 3);
        std::int64_t frames = 1;
        FramePacer::Clock::duration longestWait{};
        auto paint = start;
        for (auto due = start; due < start + kMinute; due += period) {
            lateSeed = lateSeed * 6364136223846793005ULL + 1442695040888963407ULL;
            const auto late =
                row.lateness.count() == 0
                    ? 0us
                    : std::chrono::microseconds((lateSeed >> 33) % row.lateness.count());
            const auto next = due + late;
            // A paint not yet taken when the next one comes is replaced by it.
            const auto decision = pacer.decide(paint, true, false);
            const auto takenAt =
                decision.kind == FramePacer::Decision::Kind::captureNow ? paint : decision.until;
            if (paint != start && takenAt < next) {
                pacer.captured(takenAt);
                ++frames;
                if (paint > start + 1s) {
                    longestWait = std::max(longestWait, takenAt - paint);
                }
            }
            paint = next;
        }
        const auto label =
            std::to_string(row.fps) + " fps, scene at " + std::to_string(row.sceneHz) + " Hz";
        // The first frame, and two ahead of the schedule at most.
        EXPECT_LE(frames, row.fps * kMinute.count() + 3) << label;
        EXPECT_GE(frames, std::min<std::int64_t>(row.fps, static_cast<std::int64_t>(row.sceneHz)) *
                              kMinute.count() * 98 / 100)
            << label;
        EXPECT_LE(longestWait, row.longestWait + 1ms) << label;
    }
}

// A screen that changes all the time while the viewer's rate changes every tenth of a second:
// no change of rate lets more frames through than the rates allow.
TEST(FramePacer, ChangesOfRateBuyNoFrames) {
    FramePacer pacer;
    auto now = FramePacer::Clock::time_point{} + 100s;
    const auto end = now + 60s;
    std::int64_t frames = 0;
    for (int tenth = 0; now < end; ++tenth) {
        pacer.setFrameRate(tenth % 2 == 0 ? 60 : 59);
        for (const auto until = now + 100ms; now < until;) {
            const auto decision = pacer.decide(now, true, false);
            if (decision.kind == FramePacer::Decision::Kind::captureNow) {
                pacer.captured(now);
                ++frames;
            }
            now += 1ms;
        }
    }
    // 59.5 a second on average, and the lead of three frames the schedule allows.
    EXPECT_LE(frames, 59.5 * 60 + 3);
    EXPECT_GE(frames, 59 * 60);
}

TEST(LiveSettings, ViewersChangeTheRunningStreamWithinTheStoredBounds) {
    const StreamConfig started{{"jpeg", 20, 0.4, 0.5}, std::nullopt};
    struct Row {
        std::string what;
        std::function<void(LiveSettings&)> act;
        SharedConfig::EncodeValues after;
    };
    const auto nan = std::numeric_limits<double>::quiet_NaN();
    const Row rows[] = {
        {"each value given replaces its own",
         [](auto& s) { s.request(30, std::nullopt, 0.75, std::nullopt); },
         {"jpeg", 30, 0.4, 0.75}},
        {"bounded like stored preferences",
         [nan](auto& s) { s.request(240, 0.0, nan, " H264\n"); },
         {"h264", 60, 0.1, 0.1}},
        {"prefer h264", [](auto& s) { EXPECT_TRUE(s.prefer("h264")); }, {"h264", 20, 0.4, 0.5}},
        {"prefer anything else",
         [](auto& s) { EXPECT_FALSE(s.prefer("H264") || s.prefer("webrtc") || s.prefer("jpeg")); },
         {"jpeg", 20, 0.4, 0.5}},
        {"low tier keeps the codec",
         [](auto& s) {
             s.prefer("h264");
             EXPECT_TRUE(s.selectTier("low"));
         },
         {"h264", 10, 0.3, 0.4}},
        {"auto returns to the start",
         [](auto& s) {
             s.request(50, 0.9, 0.9, "h264");
             EXPECT_TRUE(s.selectTier("auto"));
         },
         {"jpeg", 20, 0.4, 0.5}},
        {"an unknown tier changes nothing",
         [](auto& s) {
             s.request(12, std::nullopt, std::nullopt, std::nullopt);
             EXPECT_FALSE(s.selectTier("ultra") || s.selectTier("High"));
         },
         {"jpeg", 12, 0.4, 0.5}},
        {"fallback",
         [](auto& s) { (s.prefer("h264"), s.fallBackToJpeg()); },
         {"jpeg", 20, 0.4, 0.5}},
    };
    for (const auto& row : rows) {
        LiveSettings settings(started);
        row.act(settings);
        EXPECT_EQ(settings.config().encode, row.after) << row.what;
    }
}

TEST(LiveSettings, AStrugglingViewerHalvesTheFrameRateUntilFiveCleanSeconds) {
    using Qos = LiveSettings::Qos;
    const auto t0 = LiveSettings::Clock::time_point{} + 1000s;
    struct Step {
        std::chrono::milliseconds at;
        std::int64_t decodeQueue;
        double lossPct;
        Qos change;
        std::int64_t fps;
    };
    const auto run = [&](std::int64_t fps, std::initializer_list<Step> steps) {
        LiveSettings settings({{"h264", fps, 0.4, 0.5}, std::nullopt});
        for (const auto& step : steps) {
            EXPECT_EQ(settings.report(step.decodeQueue, step.lossPct, t0 + step.at), step.change)
                << fps << " fps at " << step.at.count();
            EXPECT_EQ(settings.config().encode.fps, step.fps) << step.at.count();
        }
    };
    run(30, {{0ms, 2, 4.9, Qos::unchanged, 30},
             {100ms, 3, 0, Qos::slowedDown, 15},
             {200ms, 0, 5.0, Qos::unchanged, 15},
             {5199ms, 0, 0, Qos::unchanged, 15},
             {5200ms, 0, 0, Qos::restored, 30},
             {5300ms, 0, std::nan(""), Qos::unchanged, 30}});
    run(8, {{0ms, 9, 0, Qos::slowedDown, 5}});
    run(4, {{0ms, 9, 0, Qos::slowedDown, 4}});
}

// Each unit as "key+sets [6742][68ce][6507]": its kind, then its NAL units in hex.
std::string describe(std::span<const std::uint8_t> unit, bool key, bool sets) {
    std::string text = std::string(key ? "key" : "delta") + (sets ? "+sets " : " ");
    char hex[3];
    for (std::size_t i = 0; i < unit.size(); ++i) {
        if (i + 4 <= unit.size() && unit[i] == 0 && unit[i + 1] == 0 && unit[i + 2] == 0 &&
            unit[i + 3] == 1) {
            text += i == 0 ? "[" : "][";
            i += 3;
        } else {
            std::snprintf(hex, sizeof hex, "%02x", unit[i]);
            text += hex;
        }
    }
    return text + "]";
}

// An encoder of 64x48 pictures at 20 fps and 500 kbit/s on a scripted session, with everything it
// hands on recorded.
struct RecordingEncoder {
    explicit RecordingEncoder(testing::FakeH264Session::Script& script)
        : makeSession(testing::FakeH264Session::factory(script)) {
        encoder.width = 64;
        encoder.height = 48;
        encoder.frameRate = 20;
        encoder.bitRate = 500;
        encoder.onConfiguration = [this](const Bytes& sps, const Bytes& pps) {
            configurations.emplace_back(sps, pps);
        };
        encoder.onAccessUnit = [this](std::span<const std::uint8_t> unit, bool key, bool sets) {
            delivered.push_back(describe(unit, key, sets));
        };
        encoder.onFatalError = [this](const std::string& why) { failures.push_back(why); };
        picture.resize(64, 48);
    }
    // A picture whose every Y byte is `y`.
    void encode(std::uint8_t y, std::int64_t timestampUs) {
        std::fill(picture.y.begin(), picture.y.end(), y);
        encoder.encode(picture, timestampUs);
    }

    H264SessionFactory makeSession;
    H264Encoder encoder;
    I420Picture picture;
    std::vector<std::pair<Bytes, Bytes>> configurations;
    Lines delivered;
    Lines failures;
};

TEST(H264Encoder, HandsOnKeyFramesWithParameterSetsAndReportsAFailureOnce) {
    const std::pair<Bytes, Bytes> sets{{0x67, 0x42}, {0x68, 0xCE}};
    // Whether the session repeats the parameter sets itself or not, every key frame carries them.
    for (const bool repeats : {true, false}) {
        testing::FakeH264Session::Script script;
        script.repeatParameterSets = repeats;
        script.failAtCall = 3;
        RecordingEncoder e(script);
        ASSERT_TRUE(e.encoder.start(e.makeSession));
        e.encode(7, 7000);
        e.encode(8, 8000);
        e.encoder.forceKeyFrame = true;
        e.encode(9, 9000);
        EXPECT_EQ(e.delivered, (Lines{"key+sets [6742][68ce][6507]", "delta [4108]",
                                      "key+sets [6742][68ce][6509]"}))
            << repeats;
        EXPECT_EQ(e.configurations, std::vector{sets});
        EXPECT_TRUE(e.encoder.configurationSent);

        e.encode(9, 4000);
        e.encode(9, 5000);
        EXPECT_EQ(e.failures, Lines{"scripted failure"});
        EXPECT_TRUE(e.encoder.failed);
        EXPECT_EQ(e.delivered.size(), 3u);
    }
}

// An SPS without its PPS describes no stream a decoder could start: it is never taken for the
// configuration, and a key frame that has nothing better is the encoder's failure.
TEST(H264Encoder, TakesParameterSetsOnlyAsAPair) {
    testing::FakeH264Session::Script script;
    script.withoutPps = true;
    RecordingEncoder e(script);
    ASSERT_TRUE(e.encoder.start(e.makeSession));
    e.encode(0, 0);
    EXPECT_TRUE(e.configurations.empty());
    EXPECT_TRUE(e.encoder.sps.empty() && e.encoder.pps.empty());
    EXPECT_TRUE(e.delivered.empty());
    EXPECT_EQ(e.failures, Lines{"the encoder made a key frame without parameter sets"});
}

TEST(H264Encoder, RetunesInPlaceWhenTheSessionCanElseStartsAgainWithAKeyFrame) {
    testing::FakeH264Session::Script script;
    RecordingEncoder e(script);
    H264Encoder& encoder = e.encoder;
    ASSERT_TRUE(encoder.start(e.makeSession));
    encoder.forceKeyFrame = false;
    encoder.retune(20, 500, e.makeSession);
    encoder.retune(30, 800, e.makeSession);
    encoder.retune(30, 900, e.makeSession);
    encoder.retune(25, 900, e.makeSession);
    EXPECT_EQ(script.retuned, (std::vector<std::pair<int, int>>{{30, 800}, {30, 900}, {25, 900}}));
    EXPECT_EQ(script.opened.size(), 1u);
    EXPECT_FALSE(encoder.forceKeyFrame);

    script.retunes = false;
    encoder.retune(10, 300, e.makeSession);
    ASSERT_EQ(script.opened.size(), 2u);
    EXPECT_EQ(script.opened[1], (H264SessionSettings{64, 48, 10, 300}));
    EXPECT_TRUE(encoder.forceKeyFrame);
}

TEST(StreamBitRate, StoredPreferenceElseQualityTimesPixels) {
    EXPECT_EQ(streamBitRateKbps(960, 540, 20, 0.4, std::nullopt), 1037);
    EXPECT_EQ(streamBitRateKbps(3840, 2160, 60, 1.0, std::nullopt), 20'000);
    EXPECT_EQ(streamBitRateKbps(960, 540, 20, 0.4, 2500), 2500);
    EXPECT_EQ(streamBitRateKbps(960, 540, 20, 0.4, 99'999'999), 20'000);
}

}  // namespace
}  // namespace velmorand
