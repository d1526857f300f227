#include "velmorand/relay/FrameHeader.h"

#include <algorithm>

namespace velmorand {
namespace {

constexpr std::uint8_t kKeyFrameFlag = 1U << 0U;
constexpr std::uint8_t kParameterSetsFlag = 1U << 1U;

template <typename Integer>
void putBigEndian(std::uint8_t* out, Integer value) {
    for (std::size_t i = 0; i < sizeof(Integer); ++i) {
        out[i] = static_cast<std::uint8_t>(value >> (8 * (sizeof(Integer) - 1 - i)));
    }
}

template <typename Integer>
Integer getBigEndian(const std::uint8_t* in) {
    Integer value = 0;
    for (std::size_t i = 0; i < sizeof(Integer); ++i) {
        value = static_cast<Integer>((value << 8U) | in[i]);
    }
    return value;
}

}  // namespace

void FrameHeader::write(std::span<std::uint8_t, kSize> out) const {
    std::uint8_t* bytes = out.data();
    std::copy(kMagic.begin(), kMagic.end(), bytes);
    bytes[4] = static_cast<std::uint8_t>(codec);
    bytes[5] = static_cast<std::uint8_t>((keyFrame ? kKeyFrameFlag : 0U) |
                                         (parameterSets ? kParameterSetsFlag : 0U));
    bytes[6] = 0;
    bytes[7] = 0;
    putBigEndian(bytes + 8, captureTimeUs);
    putBigEndian(bytes + 16, sequence);
    putBigEndian(bytes + 20, pictureWidth);
    putBigEndian(bytes + 22, pictureHeight);
    putBigEndian(bytes + 24, screenWidth);
    putBigEndian(bytes + 26, screenHeight);
}

std::optional<FrameHeader> FrameHeader::read(std::span<const std::uint8_t> bytes) {
    if (bytes.size() < kSize || !std::equal(kMagic.begin(), kMagic.end(), bytes.begin())) {
        return std::nullopt;
    }
    const std::uint8_t* in = bytes.data();
    if (in[4] != static_cast<std::uint8_t>(FrameCodec::jpeg) &&
        in[4] != static_cast<std::uint8_t>(FrameCodec::h264)) {
        return std::nullopt;
    }
    FrameHeader header;
    header.codec = static_cast<FrameCodec>(in[4]);
    header.keyFrame = (in[5] & kKeyFrameFlag) != 0;
    header.parameterSets = (in[5] & kParameterSetsFlag) != 0;
    header.captureTimeUs = getBigEndian<std::uint64_t>(in + 8);
    header.sequence = getBigEndian<std::uint32_t>(in + 16);
    header.pictureWidth = getBigEndian<std::uint16_t>(in + 20);
    header.pictureHeight = getBigEndian<std::uint16_t>(in + 22);
    header.screenWidth = getBigEndian<std::uint16_t>(in + 24);
    header.screenHeight = getBigEndian<std::uint16_t>(in + 26);
    return header;
}

}  // namespace velmorand
