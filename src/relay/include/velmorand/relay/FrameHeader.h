#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>

namespace velmorand {

enum class FrameCodec : std::uint8_t { jpeg = 1, h264 = 2 };

// What precedes every picture the device sends on the relay: one binary message per frame, these
// 28 bytes and then one JPEG image or one H.264 access unit in Annex B. Integers are unsigned and
// big-endian.
struct FrameHeader {
    static constexpr std::size_t kSize = 28;
    static constexpr std::array<std::uint8_t, 4> kMagic{'V', 'M', 'F', '1'};

    FrameCodec codec = FrameCodec::jpeg;
    // Every JPEG frame; an H.264 IDR.
    bool keyFrame = false;
    // The payload begins with the SPS and PPS parameter sets.
    bool parameterSets = false;
    // Microseconds since the Unix epoch.
    std::uint64_t captureTimeUs = 0;
    // 0 for the first frame sent on a connection, then one more for each frame sent.
    std::uint32_t sequence = 0;
    std::uint16_t pictureWidth = 0;
    std::uint16_t pictureHeight = 0;
    // The space of remote-control coordinates, whatever the picture's scale.
    std::uint16_t screenWidth = 0;
    std::uint16_t screenHeight = 0;

    void write(std::span<std::uint8_t, kSize> out) const;
    // Absent unless `bytes` starts with a header of this version and a known codec. Flag bits and
    // reserved bytes this version does not define are ignored, so that later senders stay readable.
    static std::optional<FrameHeader> read(std::span<const std::uint8_t> bytes);

    bool operator==(const FrameHeader&) const = default;
};

}  // namespace velmorand
