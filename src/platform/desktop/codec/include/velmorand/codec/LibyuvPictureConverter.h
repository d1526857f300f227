#pragma once

#include <cstdint>
#include <vector>

#include "velmorand/platform/PictureConverter.h"

namespace velmorand {

// Fits a grabbed screen into a picture with libyuv: a box-filtered scale in the screen's own
// layout, then the colour conversion. Its scratch image is kept, so a stream of same-sized
// frames allocates nothing after the first.
class LibyuvPictureConverter : public PictureConverter {
  public:
    void convert(const ScreenImage& image, I420Picture& picture) override;

  private:
    std::vector<std::uint8_t> scaled_;
};

}  // namespace velmorand
