#include "velmorand/ui/QrScanController.h"

#include <gtest/gtest.h>

namespace velmorand {
namespace {

using Frame = std::vector<std::optional<std::string>>;

TEST(QrScanControllerTest, DeliversTheFirstUsableCodeOnceAfterStopping) {
    const std::pair<std::vector<Frame>, std::vector<std::string>> cases[] = {
        {{{" \n\tK1 \r\n"}}, {"K1"}},
        {{{"\u00a0K5\u2028"}}, {"K5"}},
        {{{"  \n "}, {}, {"K2"}}, {"K2"}},           // blank ignored, scanning goes on
        {{{"  ", "K3"}, {std::nullopt, "K4"}}, {}},  // only the first code of a frame
        {{{"A", "B"}, {"second"}}, {"A"}},
    };
    for (const auto& [frames, expected] : cases) {
        std::vector<std::string> delivered;
        int stops = 0;
        bool stoppedFirst = false;
        QrScanController controller(
            [&](const std::string& code) {
                stoppedFirst = stops == 1;
                delivered.push_back(code);
            },
            [&] { ++stops; });
        for (const auto& frame : frames) {
            controller.codesFound(frame);
        }
        EXPECT_EQ(delivered, expected);
        EXPECT_EQ(stops, delivered.empty() ? 0 : 1);
        EXPECT_EQ(stoppedFirst, !delivered.empty());
        EXPECT_EQ(controller.handled(), !delivered.empty());
    }
    QrScanController withoutHandlers(nullptr, nullptr);
    EXPECT_TRUE(withoutHandlers.codesFound({"K"}));
    EXPECT_FALSE(withoutHandlers.codesFound({"K"}));
}

}  // namespace
}  // namespace velmorand
