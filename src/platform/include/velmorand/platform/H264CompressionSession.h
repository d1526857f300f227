#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <variant>

#include "velmorand/platform/JpegCompressor.h"
#include "velmorand/platform/PictureConverter.h"

namespace velmorand {

struct H264SessionSettings {
    int width = 0;
    int height = 0;
    int frameRate = 0;
    int bitRateKbps = 0;

    bool operator==(const H264SessionSettings&) const = default;
};

struct H264AccessUnit {
    // Annex B; a key frame's unit may begin with the SPS and PPS.
    std::span<const std::uint8_t> bytes;
    bool keyFrame = false;
};

// One H.264 stream at a fixed picture size, tuned for latency: every picture in gives one access
// unit out at once, no B-frames, and a key frame only at the start or when asked for. The stream
// can be decoded by browsers without hardware help. Not thread-safe.
class H264CompressionSession {
  public:
    virtual ~H264CompressionSession() = default;

    // `timestampUs` grows with every call; the gaps between pictures may vary. The unit's bytes
    // stay valid until the next call. An error ends the session's usefulness.
    virtual std::variant<H264AccessUnit, EncodeError> encode(const I420Picture& picture,
                                                             std::int64_t timestampUs,
                                                             bool keyFrame) = 0;
    // Changes the rate and bit rate within the same stream; false when the session cannot.
    virtual bool retune(int frameRate, int bitRateKbps) = 0;
};

using H264SessionFactory =
    std::function<std::variant<std::unique_ptr<H264CompressionSession>, EncodeError>(
        const H264SessionSettings& settings)>;

}  // namespace velmorand
