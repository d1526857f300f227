#include "velmorand/extension/RelayBase.h"

#include <gtest/gtest.h>

namespace velmorand::extension {
namespace {

using Source = RelayBase::Source;
using Text = std::optional<std::string>;

TEST(RelayBaseTest, CustomUrlWinsOnlyWhenItHasTextAndNeedsAPairing) {
    const std::string paired = "wss://relay.example/r";
    // Token, pairing URL, custom URL, the choice.
    const std::tuple<Text, Text, Text, std::optional<RelayBase>> cases[] = {
        {"tok", paired, std::nullopt, RelayBase{paired, Source::pairing}},
        {"tok", paired, "", RelayBase{paired, Source::pairing}},
        {"tok", paired, " \n\t\u00a0", RelayBase{paired, Source::pairing}},
        {"tok", paired, "  wss://mine.example/x \n",
         RelayBase{"wss://mine.example/x", Source::customUrl}},
        // Whatever the user typed is used; the client reports a URL that does not parse.
        {"tok", paired, "not a url", RelayBase{"not a url", Source::customUrl}},
        {"tok", " wss://r ", std::nullopt, RelayBase{" wss://r ", Source::pairing}},
        {std::nullopt, paired, "wss://mine", std::nullopt},
        {"", paired, std::nullopt, std::nullopt},
        {"tok", std::nullopt, "wss://mine", std::nullopt},
        {"tok", "", "wss://mine", std::nullopt},
    };
    for (const auto& [token, relayWsUrl, relayOverride, expected] : cases) {
        SharedConfig::Values values;
        values.deviceToken = token;
        values.relayWsUrl = relayWsUrl;
        values.relayOverride = relayOverride;
        EXPECT_EQ(RelayBase::choose(values), expected)
            << relayWsUrl.value_or("-") << " " << relayOverride.value_or("-");
    }
}

}  // namespace
}  // namespace velmorand::extension
