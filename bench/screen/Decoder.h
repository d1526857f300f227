#pragma once

// Frames as the device sends them (docs/protocol.md): the header, and a decoder that turns the
// payload back into a picture the way a viewer must, to planar YUV, whose luma carries the scene's
// time code.

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "TimeCode.h"

namespace velmorand::bench {

struct Frame {
    static constexpr std::size_t kHeaderSize = 28;
    enum class Codec : std::uint8_t { jpeg = 1, h264 = 2 };

    Codec codec = Codec::jpeg;
    bool keyFrame = false;
    bool parameterSets = false;
    std::uint64_t captureTimeUs = 0;
    std::uint32_t sequence = 0;
    int pictureWidth = 0;
    int pictureHeight = 0;
    int screenWidth = 0;
    int screenHeight = 0;
    std::span<const std::uint8_t> payload;

    static std::optional<Frame> parse(std::span<const std::uint8_t> message);
};

// Decodes one stream's frames in order. Not thread-safe.
class FrameDecoder {
  public:
    FrameDecoder();
    ~FrameDecoder();
    FrameDecoder(const FrameDecoder&) = delete;
    FrameDecoder& operator=(const FrameDecoder&) = delete;

    // The picture's luma, valid until the next call; nothing when the frame does not decode (an
    // H.264 frame before its key frame among them). `error` says why.
    std::optional<LumaPlane> decode(const Frame& frame, std::string* error = nullptr);

  private:
    struct Jpeg;
    struct H264;
    std::unique_ptr<Jpeg> jpeg_;
    std::unique_ptr<H264> h264_;
};

}  // namespace velmorand::bench
