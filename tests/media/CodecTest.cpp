#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <span>
#include <variant>
#include <vector>

#include "velmorand/codec/LibyuvPictureConverter.h"
#include "velmorand/codec/X264CompressionSession.h"

namespace velmorand {
namespace {

constexpr int kScreenWidth = 128;
constexpr int kScreenHeight = 96;

// Grey BGRX with rows padded past the picture, as some screens lay them out.
struct Screen {
    static constexpr int kStride = kScreenWidth * 4 + 32;
    std::vector<std::uint8_t> pixels =
        std::vector<std::uint8_t>(static_cast<std::size_t>(kStride) * kScreenHeight, 0x80);
    ScreenImage image{pixels.data(), kScreenWidth, kScreenHeight, kStride};
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
    // Every picture's unit comes out at once; the forced and the first are key frames led by
    // their parameter sets, the rest are not, retuned or not. (The browser tests decode them.)
    struct Step {
        bool force;
        bool retuneFirst;
        bool keyFrame;
        const char* what;
    };
    constexpr Step kSteps[] = {
        {false, false, true, "the first picture"},
        {false, false, false, "the second picture"},
        {true, false, true, "a forced key frame"},
        {false, false, false, "the picture after it"},
        {false, true, false, "a picture after retuning"},
        {true, false, true, "a forced key frame after retuning"},
    };
    const auto session = openSession({kScreenWidth, kScreenHeight, 30, 1000});
    ASSERT_NE(session, nullptr);
    I420Picture picture;
    picture.resize(kScreenWidth, kScreenHeight);
    LibyuvPictureConverter().convert(Screen().image, picture);
    std::int64_t timestampUs = 0;
    for (const auto& step : kSteps) {
        if (step.retuneFirst) {
            EXPECT_TRUE(session->retune(15, 400)) << step.what;
        }
        // The gaps vary, as they do when pictures come only on changes.
        timestampUs += step.force ? 250'000 : 33'333;
        auto encoded = session->encode(picture, timestampUs, step.force);
        ASSERT_TRUE(std::holds_alternative<H264AccessUnit>(encoded))
            << step.what << ": " << std::get<EncodeError>(encoded).description;
        const auto unit = std::get<H264AccessUnit>(encoded);
        EXPECT_EQ(unit.keyFrame, step.keyFrame) << step.what;
        const auto nals = nalUnits(unit.bytes);
        ASSERT_FALSE(nals.empty()) << step.what;
        std::vector<int> types;
        for (const auto nal : nals) {
            types.push_back(nal.empty() ? -1 : nal[0] & 0x1F);
        }
        if (step.keyFrame) {
            ASSERT_GE(types.size(), 3U) << step.what;
            EXPECT_EQ(types[0], kSps) << step.what;
            EXPECT_EQ(types[1], kPps) << step.what;
            EXPECT_EQ(types.back(), kIdrSlice) << step.what;
            ASSERT_GE(nals[0].size(), 3U) << step.what;
            EXPECT_EQ(nals[0][1], kBaselineProfile) << step.what;
            EXPECT_NE(nals[0][2] & kConstraintSet1, 0) << step.what << ": not constrained baseline";
        } else {
            for (const int type : types) {
                EXPECT_NE(type, kSps) << step.what;
                EXPECT_NE(type, kIdrSlice) << step.what;
            }
        }
    }
}

TEST(CodecTest, RefusesWhatDoesNotFit) {
    for (const H264SessionSettings settings :
         {H264SessionSettings{127, 96, 30, 1000}, H264SessionSettings{128, 0, 30, 1000},
          H264SessionSettings{128, 96, 0, 1000}, H264SessionSettings{128, 96, 30, 0}}) {
        EXPECT_TRUE(std::holds_alternative<EncodeError>(X264CompressionSession::open(settings)))
            << settings.width << "x" << settings.height << "@" << settings.frameRate;
    }
    // The smallest picture 4:2:0 can carry still fits.
    EXPECT_TRUE(std::holds_alternative<std::unique_ptr<H264CompressionSession>>(
        X264CompressionSession::open(H264SessionSettings{2, 2, 30, 1000})));
    I420Picture small;
    small.resize(64, 48);
    I420Picture hollow = small;  // claims a size its planes lack
    hollow.width = 128;
    hollow.height = 96;
    const auto session = openSession({128, 96, 30, 1000});
    ASSERT_NE(session, nullptr);
    for (const auto* picture : {&small, &hollow}) {
        EXPECT_TRUE(std::holds_alternative<EncodeError>(session->encode(*picture, 0, true)))
            << picture->width << "x" << picture->height;
    }
    EXPECT_FALSE(session->retune(0, 1000));
    // Only the address sanitizer would see the converter write past the planes.
    LibyuvPictureConverter().convert(Screen().image, hollow);
}

}  // namespace
}  // namespace velmorand
