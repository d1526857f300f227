#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "velmorand/ui/QrScanController.h"

namespace velmorand {
namespace {

using Frame = std::vector<std::optional<std::string>>;

struct ScanCase {
    const char* name;
    std::vector<Frame> frames;
    std::vector<std::string> delivered;
};

class QrScanControllerRules : public ::testing::TestWithParam<ScanCase> {};

TEST_P(QrScanControllerRules, DeliversTheFirstUsableCodeOnce) {
    std::vector<std::string> delivered;
    int stops = 0;
    bool stoppedBeforeDelivery = false;
    QrScanController controller(
        [&](const std::string& code) {
            stoppedBeforeDelivery = stops == 1;
            delivered.push_back(code);
        },
        [&] { ++stops; });

    for (const auto& frame : GetParam().frames) {
        controller.codesFound(frame);
    }
    EXPECT_EQ(delivered, GetParam().delivered);
    EXPECT_EQ(stops, delivered.empty() ? 0 : 1);
    EXPECT_EQ(controller.handled(), !delivered.empty());
    if (!delivered.empty()) {
        EXPECT_TRUE(stoppedBeforeDelivery);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Frames, QrScanControllerRules,
    ::testing::Values(
        ScanCase{"plain", {{"https://h/pair?key=K"}}, {"https://h/pair?key=K"}},
        ScanCase{"trimmed", {{" \n\tK1 \r\n"}}, {"K1"}},
        ScanCase{"blankIgnoredThenScanningGoesOn", {{"  \n "}, {}, {"K2"}}, {"K2"}},
        ScanCase{"onlyTheFirstOfAFrame", {{"  ", "K3"}, {std::nullopt, "K4"}}, {}},
        ScanCase{"firstOfAFrameWithTwo", {{"A", "B"}}, {"A"}},
        ScanCase{"secondCodeAfterTheFirstIgnored", {{"first"}, {"second"}, {"third"}}, {"first"}},
        ScanCase{"unicodeSpaceTrimmed", {{"\u00a0K5\u2028"}}, {"K5"}},
        ScanCase{"nothing", {{}, {std::nullopt}}, {}}),
    [](const auto& info) { return std::string(info.param.name); });

TEST(QrScanController, WorksWithoutHandlers) {
    QrScanController controller(nullptr, nullptr);
    EXPECT_TRUE(controller.codesFound({"K"}));
    EXPECT_FALSE(controller.codesFound({"K"}));
}

}  // namespace
}  // namespace velmorand
