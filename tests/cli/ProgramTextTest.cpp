#include <gtest/gtest.h>

#include "CommandRunner.h"

namespace velmorand {
namespace {

// Help and the version are plain text: every program answers them where there is no display
// (a terminal over ssh, a build machine), exiting 0.
TEST(ProgramText, HelpAndVersionNeedNoDisplay) {
    const std::vector<std::string> noDisplay = {"DISPLAY=", "WAYLAND_DISPLAY=", "QT_QPA_PLATFORM="};
    const std::tuple<std::string, std::string, std::string> cases[] = {
        {VELMORAND_APP, "--help", "--service-url <URL>"},
        {VELMORAND_APP, "--version", "velmorand-connect " VELMORAND_VERSION},
        {VELMORAND_SANDBOX, "--version", "velmorand-sandbox " VELMORAND_VERSION},
        // The sandbox's help tells what runs when an option is left out.
        {VELMORAND_SANDBOX, "--help", "(default: 127.0.0.1)"},
        {VELMORAND_CLI, "--version", VELMORAND_VERSION},
    };
    for (const auto& [program, option, shown] : cases) {
        SCOPED_TRACE(program + " " + option);
        const auto result = testing::runCommand(program, {option}, noDisplay);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_NE(result.out.find(shown), std::string::npos) << result.out;
    }
}

}  // namespace
}  // namespace velmorand
