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

TEST(EncodePercent, RoundsHalvesAwayFromZero) {
    const std::pair<double, const char*> cases[] = {
        {0.425, "43%"}, {0.125, "13%"}, {-0.125, "-13%"}, {0.995, "100%"}, {0.004, "0%"}};
    for (const auto& [fraction, text] : cases) {
        EXPECT_EQ(EncodeSection::percentText(fraction), text) << fraction;
    }
}

}  // namespace
}  // namespace velmorand
