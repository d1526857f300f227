#include "velmorand/extension/ExtensionOptions.h"

#include <gtest/gtest.h>

namespace velmorand::extension {
namespace {

std::variant<ExtensionOptions, ExtensionOptions::Exit> parse(std::vector<std::string> arguments) {
    return ExtensionOptions::parse(arguments, "1.2.3");
}

TEST(ExtensionOptionsTest, DelaysMustBePositiveFiniteAndOrderedAndHelpAndVersionExitZero) {
    const std::vector<std::string> cases[] = {{"--jitter", "0"},
                                              {"--jitter", "nan"},
                                              {"--max-delay", "inf"},
                                              {"--min-delay", "soon"},
                                              {"--min-delay", "5", "--max-delay", "2"},
                                              {"--min-delay"},
                                              {"--frobnicate"},
                                              {"extra"}};
    for (const auto& arguments : cases) {
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
