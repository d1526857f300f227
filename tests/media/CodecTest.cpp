#include <gtest/gtest.h>
#include <turbojpeg.h>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <variant>
#include <vector>

#include "velmorand/codec/LibyuvPictureConverter.h"
#include "velmorand/codec/TurboJpegCompressor.h"
#include "velmorand/codec/X264CompressionSession.h"

namespace velmorand {
namespace {

constexpr int kScreenWidth = 128;
constexpr int kScreenHeight = 96;

// The screen's quadrants, left to right then top to bottom, and what BT.601 makes of them in
// limited range (video) and in full range (JPEG).
struct Quadrant {
    const char* name;
    std::uint8_t r, g, b;
    int y, u, v;
    int fullY, fullU, fullV;
};
constexpr Quadrant kQuadrants[] = {
    {"red", 255, 0, 0, 82, 90, 240, 76, 85, 255},
    {"green", 0, 255, 0, 144, 54, 34, 150, 44, 21},
    {"blue", 0, 0, 255, 41, 240, 110, 29, 255, 107},
    {"white", 255, 255, 255, 235, 128, 128, 255, 128, 128},
};

// BGRX with rows padded past the picture, as some screens lay them out; the padding holds a
// colour none of the quadrants has, so reading it would show.
struct Screen {
    static constexpr int kPadding = 32;
    std::vector<std::uint8_t> pixels;
    ScreenImage image;

    Screen() {
        const int stride = kScreenWidth * 4 + kPadding;
        pixels.assign(static_cast<std::size_t>(stride) * kScreenHeight, 0x80);
        for (int row = 0; row < kScreenHeight; ++row) {
            for (int column = 0; column < kScreenWidth; ++column) {
                const auto& colour = kQuadrants[(row < kScreenHeight / 2 ? 0 : 2) +
                                                (column < kScreenWidth / 2 ? 0 : 1)];
                auto* pixel = &pixels[static_cast<std::size_t>(row) * stride + column * 4];
                pixel[0] = colour.b;
                pixel[1] = colour.g;
                pixel[2] = colour.r;
                pixel[3] = 0;
            }
        }
        image = {pixels.data(), kScreenWidth, kScreenHeight, stride};
    }
};

// Three planes at 4:2:0, wherever they came from.
struct Planes {
    int width = 0;
    int height = 0;
    const std::uint8_t* y = nullptr;
    const std::uint8_t* u = nullptr;
    const std::uint8_t* v = nullptr;
    int yStride = 0;
    int chromaStride = 0;
};

Planes planesOf(const I420Picture& picture) {
    return {picture.width,    picture.height, picture.y.data(), picture.u.data(),
            picture.v.data(), picture.width,  picture.width / 2};
}

void expectQuadrants(const Planes& planes, int tolerance, const std::string& where,
                     bool fullRange = false) {
    for (int index = 0; index < 4; ++index) {
        auto expected = kQuadrants[index];
        if (fullRange) {
            expected.y = expected.fullY;
            expected.u = expected.fullU;
            expected.v = expected.fullV;
        }
        const int x = planes.width / 4 + (index % 2) * planes.width / 2;
        const int y = planes.height / 4 + (index / 2) * planes.height / 2;
        const auto at = [](const std::uint8_t* plane, int stride, int px, int py) {
            return static_cast<int>(plane[static_cast<std::size_t>(py) * stride + px]);
        };
        const int chromaX = x / 2;
        const int chromaY = y / 2;
        EXPECT_NEAR(at(planes.y, planes.yStride, x, y), expected.y, tolerance)
            << where << ", Y of " << expected.name;
        EXPECT_NEAR(at(planes.u, planes.chromaStride, chromaX, chromaY), expected.u, tolerance)
            << where << ", U of " << expected.name;
        EXPECT_NEAR(at(planes.v, planes.chromaStride, chromaX, chromaY), expected.v, tolerance)
            << where << ", V of " << expected.name;
    }
}

I420Picture converted(const Screen& screen, int width, int height, bool fullRange = false) {
    LibyuvPictureConverter converter;
    I420Picture picture;
    picture.resize(width, height);
    picture.fullRange = fullRange;
    converter.convert(screen.image, picture);
    return picture;
}

struct Size {
    int width;
    int height;
};
// The screen's own size, half of it, and a factor that is no power of two.
constexpr Size kPictureSizes[] = {{kScreenWidth, kScreenHeight}, {64, 48}, {96, 72}};

std::string named(Size size) {
    return std::to_string(size.width) + "x" + std::to_string(size.height);
}

TEST(CodecTest, ConverterKeepsEachQuadrantsColour) {
    const Screen screen;
    for (const auto size : kPictureSizes) {
        for (const bool fullRange : {false, true}) {
            expectQuadrants(planesOf(converted(screen, size.width, size.height, fullRange)), 3,
                            named(size) + (fullRange ? " full range" : ""), fullRange);
        }
    }
}

TEST(CodecTest, JpegDecodesBackToTheQuadrants) {
    const Screen screen;
    TurboJpegCompressor compressor;
    const std::unique_ptr<void, int (*)(tjhandle)> decoder(tjInitDecompress(), tjDestroy);
    ASSERT_NE(decoder, nullptr);
    for (const auto size : kPictureSizes) {
        // As a stream sends JPEG: full range, which is what JPEG readers take.
        const auto picture = converted(screen, size.width, size.height, true);
        auto compressed = compressor.compress(picture, 90);
        ASSERT_TRUE(std::holds_alternative<std::span<const std::uint8_t>>(compressed))
            << std::get<EncodeError>(compressed).description;
        const std::vector<unsigned char> jpeg(std::get<0>(compressed).begin(),
                                              std::get<0>(compressed).end());
        int width = 0;
        int height = 0;
        int sampling = -1;
        int colourSpace = -1;
        ASSERT_EQ(tjDecompressHeader3(decoder.get(), jpeg.data(), jpeg.size(), &width, &height,
                                      &sampling, &colourSpace),
                  0)
            << named(size);
        EXPECT_EQ(width, size.width);
        EXPECT_EQ(height, size.height);
        EXPECT_EQ(sampling, TJSAMP_420);
        // Decoded to colours as a browser would, where a range mistake shows as washed out.
        std::vector<unsigned char> rgb(static_cast<std::size_t>(width) * height * 3);
        ASSERT_EQ(tjDecompress2(decoder.get(), jpeg.data(), jpeg.size(), rgb.data(), width,
                                width * 3, height, TJPF_RGB, 0),
                  0)
            << tjGetErrorStr2(decoder.get());
        for (int index = 0; index < 4; ++index) {
            const auto& expected = kQuadrants[index];
            const int x = width / 4 + (index % 2) * width / 2;
            const int y = height / 4 + (index / 2) * height / 2;
            const auto* pixel = &rgb[(static_cast<std::size_t>(y) * width + x) * 3];
            for (int channel = 0; channel < 3; ++channel) {
                const int want = channel == 0 ? expected.r : channel == 1 ? expected.g : expected.b;
                EXPECT_NEAR(pixel[channel], want, 8)
                    << "JPEG " << named(size) << ", " << expected.name << " channel " << channel;
            }
        }
    }
}

// libavcodec's decoder, which owes nothing to the encoder under test.
class H264Decoder {
  public:
    H264Decoder() {
        const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
        context_ = avcodec_alloc_context3(codec);
        context_->thread_count = 1;
        context_->flags |= AV_CODEC_FLAG_LOW_DELAY;
        opened_ = avcodec_open2(context_, codec, nullptr) == 0;
    }
    ~H264Decoder() {
        av_frame_free(&frame_);
        av_packet_free(&packet_);
        avcodec_free_context(&context_);
    }
    H264Decoder(const H264Decoder&) = delete;
    H264Decoder& operator=(const H264Decoder&) = delete;

    // The picture an access unit shows at once; nullptr if it shows none.
    const AVFrame* decode(std::span<const std::uint8_t> unit) {
        if (!opened_) {
            return nullptr;
        }
        std::vector<std::uint8_t> padded(unit.begin(), unit.end());
        padded.resize(unit.size() + AV_INPUT_BUFFER_PADDING_SIZE, 0);
        packet_->data = padded.data();
        packet_->size = static_cast<int>(unit.size());
        if (avcodec_send_packet(context_, packet_) < 0) {
            return nullptr;
        }
        av_frame_unref(frame_);
        return avcodec_receive_frame(context_, frame_) == 0 ? frame_ : nullptr;
    }

  private:
    AVCodecContext* context_ = nullptr;
    AVPacket* packet_ = av_packet_alloc();
    AVFrame* frame_ = av_frame_alloc();
    bool opened_ = false;
};

// The NAL units' bodies, in order, start codes removed.
std::vector<std::span<const std::uint8_t>> nalUnits(std::span<const std::uint8_t> stream) {
    std::vector<std::size_t> starts;
    for (std::size_t i = 0; i + 3 <= stream.size(); ++i) {
        if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1) {
            starts.push_back(i + 3);
        }
    }
    std::vector<std::span<const std::uint8_t>> units;
    for (std::size_t k = 0; k < starts.size(); ++k) {
        const std::size_t end = k + 1 < starts.size() ? starts[k + 1] - 3 : stream.size();
        units.push_back(stream.subspan(starts[k], end - starts[k]));
    }
    return units;
}

constexpr std::uint8_t kIdrSlice = 5;
constexpr std::uint8_t kSps = 7;
constexpr std::uint8_t kPps = 8;
constexpr std::uint8_t kBaselineProfile = 66;
constexpr std::uint8_t kConstraintSet1 = 0x40;

std::unique_ptr<H264CompressionSession> openSession(const H264SessionSettings& settings) {
    auto made = X264CompressionSession::factory()(settings);
    if (auto* error = std::get_if<EncodeError>(&made)) {
        ADD_FAILURE() << error->description;
        return nullptr;
    }
    return std::move(std::get<0>(made));
}

TEST(CodecTest, H264DecodesBackWithKeyFramesOnlyWhenAsked) {
    const Screen screen;
    // Every picture's unit comes out at once and decodes at once; the forced and the first are
    // key frames led by their parameter sets, the rest are not, retuned or not.
    struct Step {
        bool force;
        bool retuneFirst;
        bool keyFrame;
        const char* what;
    };
    constexpr Step kSteps[] = {
        {false, false, true, "the first picture"},
        {false, false, false, "the second picture"},
        {false, false, false, "the third picture"},
        {true, false, true, "a forced key frame"},
        {false, false, false, "the picture after it"},
        {false, true, false, "a picture after retuning"},
        {true, false, true, "a forced key frame after retuning"},
    };
    for (const auto size : {kPictureSizes[0], kPictureSizes[1]}) {
        const auto session = openSession({size.width, size.height, 30, 1000});
        ASSERT_NE(session, nullptr);
        const auto picture = converted(screen, size.width, size.height);
        H264Decoder decoder;
        std::int64_t timestampUs = 0;
        for (const auto& step : kSteps) {
            const std::string where = named(size) + ", " + step.what;
            if (step.retuneFirst) {
                EXPECT_TRUE(session->retune(15, 400)) << where;
            }
            // The gaps vary, as they do when pictures come only on changes.
            timestampUs += step.force ? 250'000 : 33'333;
            auto encoded = session->encode(picture, timestampUs, step.force);
            ASSERT_TRUE(std::holds_alternative<H264AccessUnit>(encoded))
                << where << ": " << std::get<EncodeError>(encoded).description;
            const auto unit = std::get<H264AccessUnit>(encoded);
            EXPECT_EQ(unit.keyFrame, step.keyFrame) << where;
            const auto nals = nalUnits(unit.bytes);
            ASSERT_FALSE(nals.empty()) << where;
            std::vector<int> types;
            for (const auto nal : nals) {
                types.push_back(nal.empty() ? -1 : nal[0] & 0x1F);
            }
            if (step.keyFrame) {
                ASSERT_GE(types.size(), 3U) << where;
                EXPECT_EQ(types[0], kSps) << where;
                EXPECT_EQ(types[1], kPps) << where;
                EXPECT_EQ(types.back(), kIdrSlice) << where;
                ASSERT_GE(nals[0].size(), 3U) << where;
                EXPECT_EQ(nals[0][1], kBaselineProfile) << where;
                EXPECT_NE(nals[0][2] & kConstraintSet1, 0) << where << ": not constrained baseline";
            } else {
                for (const int type : types) {
                    EXPECT_NE(type, kSps) << where;
                    EXPECT_NE(type, kIdrSlice) << where;
                }
            }
            const AVFrame* frame = decoder.decode(unit.bytes);
            ASSERT_NE(frame, nullptr) << where << ": the decoder showed nothing";
            ASSERT_EQ(frame->width, size.width) << where;
            ASSERT_EQ(frame->height, size.height) << where;
            ASSERT_EQ(frame->format, AV_PIX_FMT_YUV420P) << where;
            ASSERT_EQ(frame->linesize[1], frame->linesize[2]) << where;
            expectQuadrants({frame->width, frame->height, frame->data[0], frame->data[1],
                             frame->data[2], frame->linesize[0], frame->linesize[1]},
                            10, "H.264 " + where);
        }
    }
}

TEST(CodecTest, RefusesWhatDoesNotFit) {
    for (const H264SessionSettings settings :
         {H264SessionSettings{127, 96, 30, 1000}, H264SessionSettings{128, 0, 30, 1000},
          H264SessionSettings{128, 96, 0, 1000}, H264SessionSettings{128, 96, 30, -5}}) {
        EXPECT_TRUE(std::holds_alternative<EncodeError>(X264CompressionSession::open(settings)))
            << settings.width << "x" << settings.height << " " << settings.frameRate << " fps "
            << settings.bitRateKbps << " kbit/s";
    }
    I420Picture small;
    small.resize(64, 48);
    I420Picture hollow;  // claims a size its planes lack
    hollow.resize(64, 48);
    hollow.width = 128;
    hollow.height = 96;
    const auto session = openSession({128, 96, 30, 1000});
    ASSERT_NE(session, nullptr);
    TurboJpegCompressor compressor;
    for (const auto* picture : {&small, &hollow}) {
        EXPECT_TRUE(std::holds_alternative<EncodeError>(session->encode(*picture, 0, true)))
            << picture->width << "x" << picture->height;
    }
    I420Picture empty;
    for (const auto* picture : {&hollow, &empty}) {
        EXPECT_TRUE(std::holds_alternative<EncodeError>(compressor.compress(*picture, 80)))
            << picture->width << "x" << picture->height;
    }
    EXPECT_FALSE(session->retune(0, 1000));
    // Only the address sanitizer would see the converter write past the planes.
    LibyuvPictureConverter converter;
    converter.convert(Screen().image, hollow);
}

}  // namespace
}  // namespace velmorand
