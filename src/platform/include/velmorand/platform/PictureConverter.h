#pragma once

#include <cstdint>
#include <vector>

#include "velmorand/platform/ScreenCapture.h"

namespace velmorand {

// A picture as both encoders take it: 8-bit Y at full size, then U and V at half width and
// height (BT.601), each plane tightly packed. Width and height are even.
struct I420Picture {
    int width = 0;
    int height = 0;
    // Video takes limited range (16 to 235); JPEG readers expect full range (0 to 255).
    bool fullRange = false;
    std::vector<std::uint8_t> y;
    std::vector<std::uint8_t> u;
    std::vector<std::uint8_t> v;

    void resize(int evenWidth, int evenHeight) {
        width = evenWidth;
        height = evenHeight;
        const auto pixels =
            static_cast<std::size_t>(evenWidth) * static_cast<std::size_t>(evenHeight);
        y.resize(pixels);
        u.resize(pixels / 4);
        v.resize(pixels / 4);
    }
};

// Scales a grabbed screen to a picture's size and converts its colours. Not thread-safe.
class PictureConverter {
  public:
    virtual ~PictureConverter() = default;

    // `picture` keeps its size; the image is scaled to fill it.
    virtual void convert(const ScreenImage& image, I420Picture& picture) = 0;
};

}  // namespace velmorand
