#pragma once

#include <cstdint>
#include <memory>
#include <variant>

#include "velmorand/platform/H264CompressionSession.h"

struct x264_t;

namespace velmorand {

// A constrained-baseline H.264 stream from libx264, tuned for a screen shown live: one access
// unit per picture with nothing held back, key frames only at the start or when asked for (each
// led by its SPS and PPS), and a bit rate held by the VBV so a burst cannot fill the link.
class X264CompressionSession : public H264CompressionSession {
  public:
    // Each picture is cut in this many slices encoded side by side: a picture costs 1 to 5 % more
    // CPU than on one thread, and is ready 3 to 8 ms sooner, which is what holds 60 frames a
    // second at 1920x1080 on two cores. Threads that each take a whole picture would add a
    // picture of delay.
    static constexpr int kThreads = 2;

    static std::variant<std::unique_ptr<H264CompressionSession>, EncodeError> open(
        const H264SessionSettings& settings);
    static H264SessionFactory factory();

    ~X264CompressionSession() override;
    X264CompressionSession(const X264CompressionSession&) = delete;
    X264CompressionSession& operator=(const X264CompressionSession&) = delete;

    std::variant<H264AccessUnit, EncodeError> encode(const I420Picture& picture,
                                                     std::int64_t timestampUs,
                                                     bool keyFrame) override;
    bool retune(int frameRate, int bitRateKbps) override;

  private:
    X264CompressionSession(x264_t* encoder, H264SessionSettings settings);

    x264_t* encoder_;
    // As opened: retuning changes what x264 is told, not these.
    H264SessionSettings settings_;
};

}  // namespace velmorand
