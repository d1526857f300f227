#include "velmorand/pipewire/FrameCopy.h"

#include <cstring>

namespace velmorand {

bool copyToBgrx(std::span<const std::uint8_t> buffer, PixelOrder order, const FrameLayout& layout,
                std::vector<std::uint8_t>& out) {
    constexpr std::int64_t kLargestSide = 1 << 15;
    if (layout.width <= 0 || layout.height <= 0 || layout.width > kLargestSide ||
        layout.height > kLargestSide) {
        return false;
    }
    const auto rowBytes = static_cast<std::int64_t>(layout.width) * 4;
    if (layout.stride < rowBytes || layout.stride > static_cast<std::int64_t>(buffer.size()) ||
        layout.offset > buffer.size()) {
        return false;
    }
    // The last row need not reach the stride: only its pixels must be inside the buffer.
    const std::int64_t needed = layout.stride * (layout.height - 1) + rowBytes;
    if (needed > static_cast<std::int64_t>(buffer.size() - layout.offset)) {
        return false;
    }
    out.resize(static_cast<std::size_t>(rowBytes * layout.height));
    const std::uint8_t* source = buffer.data() + layout.offset;
    std::uint8_t* target = out.data();
    const bool swapped = order == PixelOrder::rgbx || order == PixelOrder::rgba;
    for (int row = 0; row < layout.height; ++row) {
        const std::uint8_t* from = source + layout.stride * row;
        std::uint8_t* to = target + rowBytes * row;
        if (!swapped) {
            std::memcpy(to, from, static_cast<std::size_t>(rowBytes));
            continue;
        }
        for (std::int64_t pixel = 0; pixel < rowBytes; pixel += 4) {
            to[pixel] = from[pixel + 2];
            to[pixel + 1] = from[pixel + 1];
            to[pixel + 2] = from[pixel];
            to[pixel + 3] = from[pixel + 3];
        }
    }
    return true;
}

}  // namespace velmorand
