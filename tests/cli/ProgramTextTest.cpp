#include <gtest/gtest.h>

#include "CommandRunner.h"

namespace velmorand {
namespace {

// Help and the version are plain text: every program answers them where there is no display
// (a terminal over ssh, a build machine), exiting 0.
TEST(ProgramText, HelpAndVersionNeedNoDisplay) {
    const std::vector<std::string> noDisplay = {"DISPLAY=", "WAYLAND_DISPLAY=", "QT_QPA_PLATFORM="};
    const std::tuple<std::string, std::vector<std::string>, std::string> cases[] = {
        {VELMORAND_APP, {"--help"}, "--service-url <URL>"},
        {VELMORAND_APP, {"--version"}, "velmorand-connect " VELMORAND_VERSION},
        // Qt's own options, which only the full help lists.
        {VELMORAND_APP, {"--help-all"}, "--qmljsdebugger <value>"},
        {VELMORAND_SANDBOX, {"--version"}, "velmorand-sandbox " VELMORAND_VERSION},
        // The sandbox's help tells what runs when an option is left out.
        {VELMORAND_SANDBOX, {"--help"}, "(default: 127.0.0.1)"},
        {VELMORAND_CLI, {"--version"}, "velmorand " VELMORAND_VERSION},
        {VELMORAND_BROADCAST, {"--version"}, "velmorand-broadcast " VELMORAND_VERSION},
        // A command's own footer, and the note every command carries.
        {VELMORAND_CLI, {"relay-client", "--help"}, "webrtc_signal and auth_rejected"},
        {VELMORAND_CLI, {"relay-client", "--help"}, "Global options, before or after the command"},
    };
    for (const auto& [program, arguments, shown] : cases) {
        SCOPED_TRACE(program + " " + arguments.front());
        const auto result = testing::runCommand(program, arguments, noDisplay);
        EXPECT_EQ(result.exitCode, 0) << result.err;
        EXPECT_NE(result.out.find(shown), std::string::npos) << result.out;
    }
}

}  // namespace
}  // namespace velmorand
