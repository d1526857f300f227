#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace velmorand {

// The byte order of a 32-bit pixel in a screen-cast buffer, first byte first.
enum class PixelOrder { bgrx, bgra, rgbx, rgba };

// Where a picture lies in a buffer the compositor filled: which of its bytes hold it, and how.
struct FrameLayout {
    int width = 0;
    int height = 0;
    // Bytes from one row to the next; at least width * 4.
    std::int64_t stride = 0;
    // The first byte of the picture, within the buffer.
    std::size_t offset = 0;
};

constexpr std::int64_t kLargestPictureSide = 16384;

// Whether a picture of this size is one this program takes: no side empty or beyond the largest,
// and no more pixels than an 8K monitor's. A picture is held three times over (arriving, newest,
// taken), and another process's word on its size must not make that gigabytes.
bool acceptedPictureSize(std::int64_t width, std::int64_t height);

// Copies the picture `layout` describes out of `buffer` into `out` as rows of B, G, R, X bytes
// (width * 4 each, no padding), whatever the buffer's pixel order. The buffer comes from another
// process: false, and `out` untouched, when the layout does not fit inside it.
bool copyToBgrx(std::span<const std::uint8_t> buffer, PixelOrder order, const FrameLayout& layout,
                std::vector<std::uint8_t>& out);

}  // namespace velmorand
