#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <thread>

#include "velmorand/platform/H264CompressionSession.h"
#include "velmorand/platform/JpegCompressor.h"
#include "velmorand/platform/PictureConverter.h"
#include "velmorand/platform/ScreenCapture.h"
#include "velmorand/relay/FrameHeader.h"
#include "velmorand/stream/FrameBudget.h"
#include "velmorand/stream/FramePacer.h"
#include "velmorand/stream/H264Encoder.h"
#include "velmorand/stream/LiveSettings.h"

namespace velmorand {

// Where a stream's frames go: the relay link.
class FrameSink {
  public:
    enum class Result { sent, overBudget, noLink };

    virtual ~FrameSink() = default;

    // Any thread. `header.sequence` is the sink's to set.
    virtual Result send(const FrameHeader& header, std::span<const std::uint8_t> payload,
                        std::int64_t budget) = 0;
    // Bytes of earlier frames still waiting to be written.
    virtual std::int64_t bytesInFlight() const = 0;
};

// Frames sent and dropped since the last report.
struct StreamStats {
    std::uint64_t sent = 0;
    std::uint64_t dropped = 0;

    bool operator==(const StreamStats&) const = default;
};

// The screen as a stream of frames: captures when the screen changed or a viewer asked for a
// frame, at most at the frame rate; scales, encodes and sends each frame on its own thread, so
// that the thread holding the relay link stays free. Frames are never queued: one that the link's
// budget has no room for is dropped, and an H.264 stream then resumes with a key frame.
class ScreenStream {
  public:
    static constexpr std::chrono::seconds kStatsInterval{10};

    struct Services {
        std::unique_ptr<ScreenCapture> capture;
        std::unique_ptr<PictureConverter> converter;
        std::unique_ptr<JpegCompressor> jpeg;
        H264SessionFactory makeH264;
        // Outlives the stream.
        FrameSink& sink;
    };

    // Reported on the stream's own thread.
    struct Events {
        // Every kStatsInterval while streaming.
        std::function<void(const StreamStats&)> onStats;
        // A new stream begins: at the start, after a codec or scale change or a resize.
        std::function<void(const std::string& codec, ScreenSize screen, ScreenSize picture)>
            onNewStream;
        // The stream goes on in JPEG.
        std::function<void(const std::string& description)> onH264Failed;
        // Streaming stops until it is resumed.
        std::function<void(const std::string& description)> onStopped;
    };

    // Starts streaming at once.
    ScreenStream(Services services, Events events, StreamConfig config);
    ~ScreenStream();
    ScreenStream(const ScreenStream&) = delete;
    ScreenStream& operator=(const ScreenStream&) = delete;

    // Any thread. A codec or scale change starts a new stream with a key frame.
    void configure(const StreamConfig& config);
    // Any thread: a key frame is sent at the next opportunity, even if the screen is still.
    void requestKeyFrame();
    // Any thread: off stops capturing and sending; on resumes with a key frame. Also the way out
    // of a stop after the link went away or capture failed.
    void setStreaming(bool streaming);

  private:
    struct Requests {
        std::optional<StreamConfig> config;
        bool keyFrame = false;
        std::optional<bool> streaming;
        bool stop = false;

        bool any() const { return config || keyFrame || streaming || stop; }
    };

    void post(const std::function<void(Requests&)>& change);
    void run();
    // False when the stream is to end.
    bool apply(const Requests& requests);
    void waitForRequest(std::optional<FramePacer::Clock::time_point> until);
    void produceFrame(FramePacer::Clock::time_point now);
    bool startStream(ScreenSize screen);
    void encode(std::uint64_t captureTimeUs, std::int64_t timestampUs);
    void send(std::span<const std::uint8_t> payload, bool keyFrame, bool parameterSets,
              std::uint64_t captureTimeUs);
    void stopStreaming(const std::string& why);
    void reportStats(FramePacer::Clock::time_point now);
    bool streamingH264() const { return h264_ && !h264_->failed; }

    Services services_;
    Events events_;

    std::mutex mutex_;
    std::condition_variable requested_;
    Requests requests_;

    // Everything below belongs to the stream's thread.
    StreamConfig config_;
    bool streaming_ = true;
    // The link was down at the last send; wait for someone to ask again.
    bool waitingForLink_ = false;
    bool changed_ = false;
    bool frameWanted_ = true;
    bool newStream_ = true;
    FramePacer pacer_;
    FrameBudget budget_;
    ScreenSize screen_;
    I420Picture picture_;
    std::optional<H264Encoder> h264_;
    std::string h264Failure_;
    FramePacer::Clock::time_point started_;
    FramePacer::Clock::time_point nextStats_;
    StreamStats window_;

    std::thread thread_;
};

}  // namespace velmorand
