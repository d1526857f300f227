#include "velmorand/pipewire/FrameCopy.h"

#include <cstring>

namespace velmorand {

bool acceptedPictureSize(std::int64_t width, std::int64_t height) {
    constexpr std::int64_t kLargestPicture = 7680 * 4320;
    return width > 0 && height > 0 && width <= kLargestPictureSide &&
           height <= kLargestPictureSide && width * height <= kLargestPicture;
}

bool copyToBgrx(std::span<const std::uint8_t> buffer, PixelOrder order, const FrameLayout& layout,
                std::vector<std::uint8_t>& out) {
    if (!acceptedPictureSize(layout.width, layout.height)) {
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
