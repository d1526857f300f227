#pragma once

#include <cstdint>
#include <span>
#include <variant>
#include <vector>

#include "velmorand/platform/JpegCompressor.h"

namespace velmorand {

// JPEG through TurboJPEG, straight from the picture's planes into an output buffer sized for the
// worst case, so no frame reallocates it.
class TurboJpegCompressor : public JpegCompressor {
  public:
    TurboJpegCompressor();
    ~TurboJpegCompressor() override;
    TurboJpegCompressor(const TurboJpegCompressor&) = delete;
    TurboJpegCompressor& operator=(const TurboJpegCompressor&) = delete;

    std::variant<std::span<const std::uint8_t>, EncodeError> compress(const I420Picture& picture,
                                                                      int quality) override;

  private:
    void* handle_ = nullptr;
    std::vector<unsigned char> output_;
};

}  // namespace velmorand
