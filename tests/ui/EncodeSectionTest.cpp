#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "UiFixture.h"
#include "velmorand/ui/EncodeSection.h"

namespace velmorand {
namespace {

class EncodeSectionTest : public ::testing::Test {
  protected:
    testing::ConfigFixture fixture;
    EncodeSection section{fixture.config};
};

TEST_F(EncodeSectionTest, AFreshInstallLoadsTheDefaults) {
    section.setCodec("h264");
    section.setFps(7);
    section.setQuality(0.9);
    section.setScale(0.9);
    section.loadEncode();
    EXPECT_EQ(section.codec(), "jpeg");
    EXPECT_EQ(section.fps(), 20);
    EXPECT_EQ(section.qualityText(), "Quality 40%");
    EXPECT_EQ(section.scaleText(), "Scale 50%");
    EXPECT_EQ(section.fpsText(), "FPS 20");
}

TEST_F(EncodeSectionTest, LoadingReplacesUnsavedEditsAndKeepsTheStatus) {
    section.setCodec("H264");
    section.setFps(30);
    section.setQuality(0.8);
    section.setScale(0.75);
    section.persistEncode();
    ASSERT_EQ(section.status(), "Saved — applies on next Start Broadcast.");

    section.setFps(45);
    section.setCodec("jpeg");
    section.loadEncode();
    EXPECT_EQ(section.codec(), "h264");
    EXPECT_EQ(section.fps(), 30);
    EXPECT_DOUBLE_EQ(section.quality(), 0.8);
    EXPECT_DOUBLE_EQ(section.scale(), 0.75);
    EXPECT_EQ(section.status(), "Saved — applies on next Start Broadcast.");
}

struct ClampCase {
    const char* name;
    std::int64_t fps;
    double quality;
    double scale;
    std::int64_t storedFps;
    double storedQuality;
    double storedScale;
};

class EncodeSectionClamping : public EncodeSectionTest,
                              public ::testing::WithParamInterface<ClampCase> {};

// The store's bounds (1..60, 0.1..1.0), not the controls' (5..60, 0.2 / 0.25..1.0).
TEST_P(EncodeSectionClamping, StoresValuesWithinTheStoresBounds) {
    const auto& c = GetParam();
    section.setFps(c.fps);
    section.setQuality(c.quality);
    section.setScale(c.scale);
    section.persistEncode();
    const auto stored = fixture.config.load();
    EXPECT_EQ(stored.fps, c.storedFps);
    EXPECT_EQ(stored.quality, c.storedQuality);
    EXPECT_EQ(stored.scale, c.storedScale);
}

INSTANTIATE_TEST_SUITE_P(
    Bounds, EncodeSectionClamping,
    ::testing::Values(ClampCase{"controlMinimums", 5, 0.2, 0.25, 5, 0.2, 0.25},
                      ClampCase{"belowControlsWithinStore", 1, 0.1, 0.15, 1, 0.1, 0.15},
                      ClampCase{"belowStore", 0, 0.05, -1.0, 1, 0.1, 0.1},
                      ClampCase{"negativeFps", -20, 0.5, 0.5, 1, 0.5, 0.5},
                      ClampCase{"aboveStore", 61, 1.5, 2.0, 60, 1.0, 1.0},
                      ClampCase{"notANumber", 20, std::numeric_limits<double>::quiet_NaN(),
                                std::numeric_limits<double>::quiet_NaN(), 20, 0.1, 0.1}),
    [](const auto& info) { return std::string(info.param.name); });

TEST_F(EncodeSectionTest, SavingKeepsEveryOtherFieldAndNormalisesTheCodec) {
    SharedConfig::Values before;
    before.accessKey = "k";
    before.deviceToken = "t";
    before.relayWsUrl = "wss://r";
    before.relayRegion = "eu";
    before.relayOverride = "wss://o";
    before.bitrate = 4'000'000;
    fixture.config.persist(before);

    section.setCodec("H.264?");
    section.persistEncode();

    auto expected = before;
    expected.codec = SharedConfig::normalizeCodec(std::string("H.264?"));
    expected.fps = 20;
    expected.quality = 0.4;
    expected.scale = 0.5;
    EXPECT_EQ(fixture.config.load(), expected);
}

TEST_F(EncodeSectionTest, TheStepperStaysWithinFiveToSixty) {
    section.setFps(6);
    section.stepFps(-1);
    EXPECT_EQ(section.fps(), 5);
    section.stepFps(-1);
    EXPECT_EQ(section.fps(), 5);
    section.setFps(59);
    section.stepFps(1);
    section.stepFps(1);
    EXPECT_EQ(section.fps(), 60);
    EXPECT_EQ(section.fpsText(), "FPS 60");
}

TEST(EncodePercent, RoundsHalvesAwayFromZero) {
    const std::pair<double, const char*> cases[] = {
        {0.425, "43%"}, {0.125, "13%"}, {-0.125, "-13%"}, {0.995, "100%"}, {0.4, "40%"},
        {0.2, "20%"},   {0.25, "25%"},  {1.0, "100%"},    {0.004, "0%"},   {0.0, "0%"},
    };
    for (const auto& [fraction, text] : cases) {
        EXPECT_EQ(EncodeSection::percentText(fraction), text) << fraction;
    }
}

}  // namespace
}  // namespace velmorand
