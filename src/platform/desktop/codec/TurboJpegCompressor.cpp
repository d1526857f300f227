#include "velmorand/codec/TurboJpegCompressor.h"

#include <turbojpeg.h>

#include <algorithm>
#include <string>

#include "PicturePlanes.h"

namespace velmorand {
namespace {

std::string turboJpegError(tjhandle handle) {
    const char* text = tjGetErrorStr2(handle);
    return text != nullptr && *text != '\0' ? text : "unknown TurboJPEG error";
}

}  // namespace

TurboJpegCompressor::TurboJpegCompressor() : handle_(tjInitCompress()) {}

TurboJpegCompressor::~TurboJpegCompressor() {
    if (handle_ != nullptr) {
        tjDestroy(handle_);
    }
}

std::variant<std::span<const std::uint8_t>, EncodeError> TurboJpegCompressor::compress(
    const I420Picture& picture, int quality) {
    if (handle_ == nullptr) {
        return EncodeError{"TurboJPEG did not start: " + turboJpegError(nullptr)};
    }
    if (!planesFit(picture)) {
        return EncodeError{"the picture's planes do not match its size"};
    }
    const unsigned long worstCase = tjBufSize(picture.width, picture.height, TJSAMP_420);
    if (worstCase == static_cast<unsigned long>(-1)) {
        return EncodeError{"the picture is too large for JPEG"};
    }
    if (output_.size() < worstCase) {
        output_.resize(worstCase);
    }
    const unsigned char* planes[] = {picture.y.data(), picture.u.data(), picture.v.data()};
    const int strides[] = {picture.width, picture.width / 2, picture.width / 2};
    unsigned char* output = output_.data();
    unsigned long size = output_.size();
    // NOREALLOC keeps TurboJPEG writing into our buffer, which is large enough for any picture
    // of this size, instead of swapping in one of its own.
    if (tjCompressFromYUVPlanes(handle_, planes, picture.width, strides, picture.height, TJSAMP_420,
                                &output, &size, std::clamp(quality, 1, 100),
                                TJFLAG_NOREALLOC) != 0) {
        return EncodeError{turboJpegError(handle_)};
    }
    return std::span<const std::uint8_t>(output_.data(), size);
}

}  // namespace velmorand
