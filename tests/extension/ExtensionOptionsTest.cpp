#include "velmorand/extension/ExtensionOptions.h"

#include <gtest/gtest.h>

namespace velmorand::extension {
namespace {

std::variant<ExtensionOptions, ExtensionOptions::Exit> parse(std::vector<std::string> arguments) {
    return ExtensionOptions::parse(arguments, "1.2.3");
}

TEST(ExtensionOptionsTest, ReadsLocationsAndReconnectPolicy) {
    const auto options = std::get<ExtensionOptions>(
        parse({"--data-dir", "/tmp/d", "--bundle-dir", "/b", "--min-delay", "0.05", "--max-delay",
               "0.2", "--jitter", "1e-3"}));
    EXPECT_EQ(options.dataDir, std::filesystem::path("/tmp/d"));
    EXPECT_EQ(options.bundleDir, std::filesystem::path("/b"));
    EXPECT_DOUBLE_EQ(options.reconnect.minDelay, 0.05);
    EXPECT_DOUBLE_EQ(options.reconnect.maxDelay, 0.2);
    EXPECT_DOUBLE_EQ(options.reconnect.jitter, 0.001);
    const auto defaults = std::get<ExtensionOptions>(parse({}));
    EXPECT_FALSE(defaults.dataDir || defaults.bundleDir);
    const RelayClient::ReconnectPolicy policy;
    EXPECT_EQ(defaults.reconnect.minDelay, policy.minDelay);
    EXPECT_EQ(defaults.reconnect.maxDelay, policy.maxDelay);
    EXPECT_EQ(defaults.reconnect.jitter, policy.jitter);
}

TEST(ExtensionOptionsTest, DelaysMustBePositiveFiniteAndOrderedAndHelpAndVersionExitZero) {
    for (const auto& arguments :
         std::vector<std::vector<std::string>>{{"--jitter", "0"},
                                               {"--jitter", "nan"},
                                               {"--max-delay", "inf"},
                                               {"--min-delay", "soon"},
                                               {"--min-delay", "5", "--max-delay", "2"},
                                               {"--min-delay"},
                                               {"--frobnicate"},
                                               {"extra"}}) {
        const auto exit = std::get<ExtensionOptions::Exit>(parse(arguments));
        EXPECT_EQ(exit.status, 2) << arguments[0];
        EXPECT_EQ(exit.text.rfind("velmorand-broadcast: ", 0), 0u) << exit.text;
    }
    const auto help = std::get<ExtensionOptions::Exit>(parse({"--help"}));
    EXPECT_EQ(help.status, 0);
    for (const char* option : {"--data-dir", "--bundle-dir", "--min-delay", "--jitter"}) {
        EXPECT_NE(help.text.find(option), std::string::npos) << option;
    }
    const auto version = std::get<ExtensionOptions::Exit>(parse({"--version"}));
    EXPECT_EQ(version.status, 0);
    EXPECT_EQ(version.text, "velmorand-broadcast 1.2.3\n");
}

}  // namespace
}  // namespace velmorand::extension
