#include "QrFrameDecoder.h"

#include <QImage>
#include <QVideoFrame>

// text() as UTF-8, the form this zxing-cpp version is moving to.
#define ZX_USE_UTF8 1
#include <ZXing/ReadBarcode.h>

namespace velmorand::app {

std::vector<std::optional<std::string>> QrFrameDecoder::decode(const QImage& image) {
    if (image.isNull()) {
        return {};
    }
    const auto gray = image.convertToFormat(QImage::Format_Grayscale8);
    const ZXing::ImageView view(gray.constBits(), gray.width(), gray.height(),
                                ZXing::ImageFormat::Lum, static_cast<int>(gray.bytesPerLine()));
    ZXing::DecodeHints hints;
    hints.setFormats(ZXing::BarcodeFormat::QRCode);
    hints.setTryHarder(true);

    std::vector<std::optional<std::string>> codes;
    for (const auto& result : ZXing::ReadBarcodes(view, hints)) {
        if (result.isValid()) {
            codes.emplace_back(result.text());
        } else {
            codes.emplace_back(std::nullopt);
        }
    }
    return codes;
}

std::vector<std::optional<std::string>> QrFrameDecoder::decode(const QVideoFrame& frame) {
    if (!frame.isValid()) {
        return {};
    }
    return decode(frame.toImage());
}

}  // namespace velmorand::app
