#include "InMemoryConfig.h"
#include "velmorand/ui/EncodeSection.h"

#include <gtest/gtest.h>

#include <cmath>

#include "velmorand/config/SharedConfig.h"

namespace velmorand {
namespace {

class EncodeSectionTest : public ::testing::Test, protected testing::InMemoryConfig {
  protected:
    void edit(std::string codec, std::int64_t fps, double quality, double scale) {
        section.setCodec(std::move(codec));
        section.setFps(fps);
        section.setQuality(quality);
        section.setScale(scale);
    }

    EncodeSection section{config};
};

TEST_F(EncodeSectionTest, LoadsDefaultsOrWhatWasSavedAndSavingKeepsOtherFields) {
    edit("h264", 7, 0.9, 0.9);
    section.loadEncode();  // nothing stored yet
    EXPECT_EQ(section.codec(), "jpeg");
    EXPECT_EQ(section.fpsText(), "FPS 20");
    EXPECT_EQ(section.qualityText(), "Quality 40%");
    EXPECT_EQ(section.scaleText(), "Scale 50%");

    SharedConfig::Values before;
    before.deviceToken = "t";
    before.bitrate = 4'000'000;
    before.relayOverride = "wss://o";
    config.persist(before);
    edit("H264", 30, 0.8, 0.75);
    section.persistEncode();
    EXPECT_EQ(section.status(), "Saved — applies on next Start Broadcast.");
    auto expected = before;
    expected.codec = "h264";
    expected.fps = 30;
    expected.quality = 0.8;
    expected.scale = 0.75;
    EXPECT_EQ(config.load(), expected);

    edit("jpeg", 45, 0.3, 0.3);
    section.loadEncode();
    EXPECT_EQ(section.codec(), "h264");
    EXPECT_EQ(section.fps(), 30);
    EXPECT_EQ(section.qualityText(), "Quality 80%");
    EXPECT_EQ(section.scaleText(), "Scale 75%");
    EXPECT_EQ(section.status(), "Saved — applies on next Start Broadcast.");
}

// The store's bounds (1..60, 0.1..1.0), not the controls' (5..60, 0.2 / 0.25..1.0).
TEST_F(EncodeSectionTest, StoresValuesWithinTheStoresBounds) {
    const double nan = std::nan("");
    // fps, stored fps, quality, stored quality, scale, stored scale
    const std::tuple<std::int64_t, std::int64_t, double, double, double, double> cases[] = {
        {5, 5, 0.2, 0.2, 0.25, 0.25}, {1, 1, 0.1, 0.1, 0.15, 0.15}, {0, 1, 0.05, 0.1, -1.0, 0.1},
        {61, 60, 1.5, 1.0, 2.0, 1.0}, {20, 20, nan, 0.1, nan, 0.1},
    };
    for (const auto& [fps, storedFps, quality, storedQuality, scale, storedScale] : cases) {
        SCOPED_TRACE(fps);
        edit("jpeg", fps, quality, scale);
        section.persistEncode();
        const auto stored = config.load();
        EXPECT_EQ(stored.fps, storedFps);
        EXPECT_EQ(stored.quality, storedQuality);
        EXPECT_EQ(stored.scale, storedScale);
    }
}

TEST_F(EncodeSectionTest, TheStepperStaysWithinFiveToSixty) {
    section.setFps(6);
    section.stepFps(-1);
    section.stepFps(-1);
    EXPECT_EQ(section.fps(), 5);
    section.setFps(59);
    section.stepFps(1);
    section.stepFps(1);
    EXPECT_EQ(section.fpsText(), "FPS 60");
}

TEST(EncodePercent, RoundsHalvesAwayFromZero) {
    const std::pair<double, const char*> cases[] = {
        {0.425, "43%"}, {0.125, "13%"}, {-0.125, "-13%"}, {0.995, "100%"}, {0.004, "0%"}};
    for (const auto& [fraction, text] : cases) {
        EXPECT_EQ(EncodeSection::percentText(fraction), text) << fraction;
    }
}

}  // namespace
}  // namespace velmorand
