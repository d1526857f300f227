#pragma once

#include <cstddef>

#include "velmorand/platform/PictureConverter.h"

namespace velmorand {

// Whether a picture's planes hold what its size says, so the libraries, which take bare
// pointers, cannot read or write past them.
inline bool planesFit(const I420Picture& picture) {
    const auto pixels =
        static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height);
    return picture.width > 0 && picture.height > 0 && picture.width % 2 == 0 &&
           picture.height % 2 == 0 && picture.y.size() >= pixels &&
           picture.u.size() >= pixels / 4 && picture.v.size() >= pixels / 4;
}

}  // namespace velmorand
