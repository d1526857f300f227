#pragma once

#include <cstdint>
#include <span>
#include <string>
#include <variant>

#include "velmorand/platform/PictureConverter.h"

namespace velmorand {

struct EncodeError {
    std::string description;
};

// Baseline JPEG with 4:2:0 sampling, straight from the picture's planes. Not thread-safe.
class JpegCompressor {
  public:
    virtual ~JpegCompressor() = default;

    // `quality` from 1 to 100. The image's bytes stay valid until the next call.
    virtual std::variant<std::span<const std::uint8_t>, EncodeError> compress(
        const I420Picture& picture, int quality) = 0;
};

}  // namespace velmorand
