#include "velmorand/codec/LibyuvPictureConverter.h"

#include <libyuv/convert_from_argb.h>
#include <libyuv/scale_argb.h>

#include <cstddef>

#include "PicturePlanes.h"

namespace velmorand {
namespace {

constexpr int kBytesPerPixel = 4;

bool fits(const ScreenImage& image) {
    return image.pixels != nullptr && image.width > 0 && image.height > 0 &&
           image.stride >= image.width * kBytesPerPixel;
}

}  // namespace

void LibyuvPictureConverter::convert(const ScreenImage& image, I420Picture& picture) {
    if (!fits(image) || !planesFit(picture)) {
        return;
    }
    // libyuv names its formats by the 32-bit word, so the screen's B, G, R, X bytes are its ARGB.
    const std::uint8_t* source = image.pixels;
    int sourceStride = image.stride;
    if (image.width != picture.width || image.height != picture.height) {
        sourceStride = picture.width * kBytesPerPixel;
        scaled_.resize(static_cast<std::size_t>(sourceStride) *
                       static_cast<std::size_t>(picture.height));
        // Scaling first puts only the picture's pixels through the colour conversion. The box
        // filter averages every screen pixel, so thin lines and text fade rather than vanish.
        libyuv::ARGBScale(image.pixels, image.stride, image.width, image.height, scaled_.data(),
                          sourceStride, picture.width, picture.height, libyuv::kFilterBox);
        source = scaled_.data();
    }
    const auto toPlanes = picture.fullRange ? libyuv::ARGBToJ420 : libyuv::ARGBToI420;
    toPlanes(source, sourceStride, picture.y.data(), picture.width, picture.u.data(),
             picture.width / 2, picture.v.data(), picture.width / 2, picture.width,
             picture.height);
}

}  // namespace velmorand
