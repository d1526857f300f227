#pragma once

#include <optional>
#include <string>
#include <vector>

class QImage;
class QVideoFrame;

namespace velmorand::app {

// Finds QR codes in a camera frame or an image, with zxing-cpp.
class QrFrameDecoder {
  public:
    QrFrameDecoder() = delete;

    // The codes found, in the decoder's order; absent for a code whose text could not be read.
    static std::vector<std::optional<std::string>> decode(const QImage& image);
    static std::vector<std::optional<std::string>> decode(const QVideoFrame& frame);
};

}  // namespace velmorand::app
