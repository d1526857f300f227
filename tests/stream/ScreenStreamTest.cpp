// The capture-to-relay pipeline on its own thread, over fakes of the screen, the codecs and the
// relay link.
#include <gtest/gtest.h>

#include <thread>

#include "RecordingLog.h"
#include "StreamFakes.h"
#include "velmorand/stream/ScreenStream.h"

namespace velmorand {
namespace {

using namespace std::chrono_literals;
using testing::FakeSink;
using Payload = std::vector<std::uint8_t>;

class ScreenStreamTest : public ::testing::Test {
  protected:
    void start(std::string codec, double scale = 0.5) {
        stream_ = std::make_unique<ScreenStream>(
            ScreenStream::Services{.capture = screen_.capture(),
                                   .converter = std::make_unique<testing::FakeConverter>(),
                                   .jpeg = std::move(jpeg_),
                                   .makeH264 = testing::FakeH264Session::factory(h264_),
                                   .sink = sink_},
            ScreenStream::Events{
                .onStats = {},
                .onNewStream =
                    [this](const std::string& codec, ScreenSize screen, ScreenSize picture) {
                        note(codec + " " + std::to_string(picture.width) + "x" +
                             std::to_string(picture.height) + " of " +
                             std::to_string(screen.width) + "x" + std::to_string(screen.height));
                    },
                .onH264Failed = [this](const std::string& why) { note("h264 failed: " + why); },
                .onStopped = [this](const std::string& why) { note("stopped: " + why); }},
            StreamConfig{{codec, 60, 0.5, scale}, std::nullopt});
    }

    // The nth frame sent, waiting for it.
    FakeSink::Frame frame(std::size_t n) {
        const auto frames = sink_.await(n + 1);
        EXPECT_GT(frames.size(), n) << "frame " << n << " never came";
        return frames.size() > n ? frames[n] : FakeSink::Frame{};
    }
    // Gives the stream's thread time to do what it should not.
    std::size_t framesAfterAWhile() {
        std::this_thread::sleep_for(150ms);
        return sink_.await(0).size();
    }
    // The stream's events, one line each, as its thread reports them.
    void note(const std::string& event) { events_.write(event); }
    std::vector<std::string> events() const { return events_.lines(); }

    testing::FakeScreen screen_;
    std::unique_ptr<testing::FakeJpeg> jpeg_ = std::make_unique<testing::FakeJpeg>();
    FakeSink sink_;
    testing::FakeH264Session::Script h264_;
    testing::RecordingLog events_;
    std::unique_ptr<ScreenStream> stream_;
};

TEST_F(ScreenStreamTest, SendsAFrameWhenTheScreenChangesOrAViewerAsksAndNothingOtherwise) {
    screen_.change(3);
    start("jpeg");
    const auto first = frame(0);
    EXPECT_EQ(first.header, (FrameHeader{.codec = FrameCodec::jpeg,
                                         .keyFrame = true,
                                         .parameterSets = false,
                                         .captureTimeUs = first.header.captureTimeUs,
                                         .sequence = 0,
                                         .pictureWidth = 32,
                                         .pictureHeight = 24,
                                         .screenWidth = 64,
                                         .screenHeight = 48}));
    EXPECT_EQ(first.payload, (Payload{0xFF, 0xD8, 3, 50, 0xFF, 0xD9}));
    EXPECT_EQ(framesAfterAWhile(), 1u);
    EXPECT_EQ(screen_.grabs(), 1);

    screen_.change(4);
    EXPECT_EQ(frame(1).payload[2], 4);
    stream_->requestKeyFrame();
    EXPECT_EQ(frame(2).payload[2], 4);

    stream_->setStreaming(false);
    screen_.change(5);
    EXPECT_EQ(framesAfterAWhile(), 3u);
    stream_->setStreaming(true);
    EXPECT_EQ(frame(3).payload[2], 5);
    EXPECT_EQ(events(), std::vector<std::string>{"jpeg 32x24 of 64x48"});
}

TEST_F(ScreenStreamTest, AFrameTheBudgetRefusesIsDroppedAndTheStreamResumesWithAKeyFrame) {
    start("h264");
    const auto first = frame(0);
    EXPECT_TRUE(first.header.keyFrame && first.header.parameterSets);
    EXPECT_EQ(first.header.codec, FrameCodec::h264);
    EXPECT_EQ(first.payload.size(), 18u);
    screen_.change(1);
    EXPECT_FALSE(frame(1).header.keyFrame);

    sink_.result = FrameSink::Result::overBudget;
    screen_.change(2);
    while (sink_.refusals == 0) {
        std::this_thread::sleep_for(1ms);
    }
    sink_.result = FrameSink::Result::sent;
    const auto resumed = frame(2);
    EXPECT_TRUE(resumed.header.keyFrame && resumed.header.parameterSets);
    EXPECT_EQ(resumed.payload.back(), 2);

    // While the link holds more than the budget leaves room for, nothing is even captured.
    const int grabs = screen_.grabs();
    sink_.inFlight = FrameBudget::kMinimum;
    screen_.change(3);
    EXPECT_EQ(framesAfterAWhile(), 3u);
    EXPECT_EQ(screen_.grabs(), grabs);
    sink_.inFlight = 0;
    EXPECT_EQ(frame(3).payload.back(), 3);
}

TEST_F(ScreenStreamTest, CodecScaleAndScreenChangesStartNewStreamsWithKeyFrames) {
    start("jpeg");
    frame(0);
    stream_->configure({{"h264", 60, 0.5, 0.5}, std::nullopt});
    const auto h264 = frame(1);
    EXPECT_EQ(h264.header.codec, FrameCodec::h264);
    EXPECT_TRUE(h264.header.keyFrame && h264.header.parameterSets);

    // Quality and rate alone keep the stream.
    stream_->configure({{"h264", 30, 0.9, 0.5}, std::nullopt});
    screen_.change(1);
    EXPECT_FALSE(frame(2).header.keyFrame);

    stream_->configure({{"h264", 30, 0.9, 1.0}, std::nullopt});
    const auto full = frame(3);
    EXPECT_TRUE(full.header.keyFrame);
    EXPECT_EQ(full.header.pictureWidth, 64);

    screen_.resize({100, 80});
    const auto resized = frame(4);
    EXPECT_TRUE(resized.header.keyFrame && resized.header.parameterSets);
    EXPECT_EQ(std::make_pair(resized.header.screenWidth, resized.header.pictureHeight),
              std::make_pair(std::uint16_t{100}, std::uint16_t{80}));
    EXPECT_EQ(h264_.opened.back(), (H264SessionSettings{100, 80, 30, 150}));
    EXPECT_EQ(events(), (std::vector<std::string>{"jpeg 32x24 of 64x48", "h264 32x24 of 64x48",
                                                  "h264 64x48 of 64x48", "h264 100x80 of 100x80"}));

    // Resized in one dimension between the stream's look at the size and its grab: that picture
    // is dropped and the next stream has the new size.
    std::size_t sequence = 5;
    for (const ScreenSize size : {ScreenSize{120, 80}, ScreenSize{120, 90}}) {
        screen_.resizeAtNextGrab(size);
        const auto next = frame(sequence++);
        EXPECT_TRUE(next.header.keyFrame);
        EXPECT_EQ(std::make_pair(next.header.screenWidth, next.header.screenHeight),
                  std::make_pair(std::uint16_t(size.width), std::uint16_t(size.height)));
    }
}

TEST_F(ScreenStreamTest, AFailingEncoderFallsBackToJpegAndAFailingScreenStops) {
    h264_.failAtCall = 1;
    start("h264");
    EXPECT_EQ(frame(0).header.codec, FrameCodec::h264);
    screen_.change(1);
    const auto fallback = frame(1);
    EXPECT_EQ(fallback.header.codec, FrameCodec::jpeg);
    EXPECT_EQ(fallback.payload[2], 1);

    screen_.failGrabs("the X server closed the connection");
    screen_.change(2);
    EXPECT_EQ(framesAfterAWhile(), 2u);
    EXPECT_EQ(events(), (std::vector<std::string>{
                            "h264 32x24 of 64x48", "h264 failed: scripted failure",
                            "jpeg 32x24 of 64x48", "stopped: the X server closed the connection"}));
}

TEST_F(ScreenStreamTest, AScreenWithoutSizeOrAFailingJpegStopsTheStreamSayingWhy) {
    const std::pair<ScreenSize, std::optional<std::string>> rows[] = {
        {{1, 48}, std::nullopt},
        {{64, 48}, "no memory"},
    };
    for (const auto& [size, jpegFailure] : rows) {
        jpeg_ = std::make_unique<testing::FakeJpeg>();
        jpeg_->failure = jpegFailure;
        screen_.resize(size);
        const auto before = events().size();
        start("jpeg");
        EXPECT_EQ(framesAfterAWhile(), 0u);
        const auto stop = jpegFailure ? "stopped: JPEG compression failed: " + *jpegFailure
                                      : std::string("stopped: the screen has no size");
        ASSERT_GT(events().size(), before);
        EXPECT_EQ(events().back(), stop);
        stream_.reset();
    }
}

}  // namespace
}  // namespace velmorand
