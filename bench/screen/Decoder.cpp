#include "Decoder.h"

#include <turbojpeg.h>

#include <cstring>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

namespace velmorand::bench {
namespace {

std::uint64_t bigEndian(std::span<const std::uint8_t> bytes) {
    std::uint64_t value = 0;
    for (const std::uint8_t byte : bytes) {
        value = (value << 8) | byte;
    }
    return value;
}

}  // namespace

std::optional<Frame> Frame::parse(std::span<const std::uint8_t> message) {
    if (message.size() < kHeaderSize || std::memcmp(message.data(), "VMF1", 4) != 0 ||
        (message[4] != 1 && message[4] != 2)) {
        return std::nullopt;
    }
    Frame frame;
    frame.codec = static_cast<Codec>(message[4]);
    frame.keyFrame = (message[5] & 1U) != 0;
    frame.parameterSets = (message[5] & 2U) != 0;
    frame.captureTimeUs = bigEndian(message.subspan(8, 8));
    frame.sequence = static_cast<std::uint32_t>(bigEndian(message.subspan(16, 4)));
    frame.pictureWidth = static_cast<int>(bigEndian(message.subspan(20, 2)));
    frame.pictureHeight = static_cast<int>(bigEndian(message.subspan(22, 2)));
    frame.screenWidth = static_cast<int>(bigEndian(message.subspan(24, 2)));
    frame.screenHeight = static_cast<int>(bigEndian(message.subspan(26, 2)));
    frame.payload = message.subspan(kHeaderSize);
    return frame;
}

struct FrameDecoder::Jpeg {
    tjhandle handle = tjInitDecompress();
    std::vector<unsigned char> planes[3];

    ~Jpeg() {
        if (handle != nullptr) {
            tjDestroy(handle);
        }
    }
};

struct FrameDecoder::H264 {
    AVCodecContext* context = nullptr;
    AVPacket* packet = av_packet_alloc();
    AVFrame* picture = av_frame_alloc();
    // libavcodec reads a little past the end of a packet.
    std::vector<std::uint8_t> padded;

    H264() {
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
        if (codec == nullptr) {
            return;
        }
        context = avcodec_alloc_context3(codec);
        // One thread: frame threading holds each picture back by a frame per thread, which a
        // latency measurement would count against the stream.
        context->thread_count = 1;
        context->flags |= AV_CODEC_FLAG_LOW_DELAY;
        if (avcodec_open2(context, codec, nullptr) < 0) {
            avcodec_free_context(&context);
        }
    }
    ~H264() {
        avcodec_free_context(&context);
        av_packet_free(&packet);
        av_frame_free(&picture);
    }
};

FrameDecoder::FrameDecoder() = default;
FrameDecoder::~FrameDecoder() = default;

std::optional<LumaPlane> FrameDecoder::decode(const Frame& frame, std::string* error) {
    const auto failed = [error](std::string why) -> std::optional<LumaPlane> {
        if (error != nullptr) {
            *error = std::move(why);
        }
        return std::nullopt;
    };
    if (frame.codec == Frame::Codec::jpeg) {
        if (!jpeg_) {
            jpeg_ = std::make_unique<Jpeg>();
        }
        auto& jpeg = *jpeg_;
        int width = 0;
        int height = 0;
        int subsampling = 0;
        int colourspace = 0;
        auto* data = const_cast<unsigned char*>(frame.payload.data());
        const auto size = static_cast<unsigned long>(frame.payload.size());
        if (tjDecompressHeader3(jpeg.handle, data, size, &width, &height, &subsampling,
                                &colourspace) != 0) {
            return failed(std::string("JPEG header: ") + tjGetErrorStr2(jpeg.handle));
        }
        unsigned char* planes[3];
        int strides[3];
        for (int i = 0; i < 3; ++i) {
            const int stride = tjPlaneWidth(i, width, subsampling);
            const auto bytes = tjPlaneSizeYUV(i, width, stride, height, subsampling);
            if (stride <= 0 || bytes == static_cast<unsigned long>(-1)) {
                // A grey image has one plane.
                planes[i] = nullptr;
                strides[i] = 0;
                continue;
            }
            jpeg.planes[i].resize(bytes);
            planes[i] = jpeg.planes[i].data();
            strides[i] = stride;
        }
        // To planes, as a viewer's decoder does before any colour conversion.
        if (tjDecompressToYUVPlanes(jpeg.handle, data, size, planes, width, strides, height, 0) !=
            0) {
            return failed(std::string("JPEG: ") + tjGetErrorStr2(jpeg.handle));
        }
        return LumaPlane{planes[0], strides[0],        width,
                         height,    frame.screenWidth, frame.screenHeight};
    }
    if (!h264_) {
        h264_ = std::make_unique<H264>();
    }
    auto& h264 = *h264_;
    if (h264.context == nullptr || h264.packet == nullptr || h264.picture == nullptr) {
        return failed("libavcodec has no usable H.264 decoder");
    }
    h264.padded.assign(frame.payload.begin(), frame.payload.end());
    h264.padded.resize(frame.payload.size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
    h264.packet->data = h264.padded.data();
    h264.packet->size = static_cast<int>(frame.payload.size());
    if (frame.keyFrame) {
        h264.packet->flags |= AV_PKT_FLAG_KEY;
    } else {
        h264.packet->flags &= ~AV_PKT_FLAG_KEY;
    }
    const int sent = avcodec_send_packet(h264.context, h264.packet);
    if (sent < 0) {
        return failed("H.264: the decoder refused the access unit (" + std::to_string(sent) + ")");
    }
    av_frame_unref(h264.picture);
    const int received = avcodec_receive_frame(h264.context, h264.picture);
    if (received < 0) {
        return failed("H.264: no picture came out of the access unit (" + std::to_string(received) +
                      ")");
    }
    return LumaPlane{h264.picture->data[0], h264.picture->linesize[0], h264.picture->width,
                     h264.picture->height,  frame.screenWidth,         frame.screenHeight};
}

}  // namespace velmorand::bench
