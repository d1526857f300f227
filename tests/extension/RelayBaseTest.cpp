#include <gtest/gtest.h>

#include "velmorand/extension/RelayBase.h"

namespace velmorand::extension {
namespace {

struct Case {
    const char* name;
    std::optional<std::string> deviceToken;
    std::optional<std::string> relayWsUrl;
    std::optional<std::string> relayOverride;
    std::optional<RelayBase> expected;
};

class RelayBaseTest : public ::testing::TestWithParam<Case> {};

TEST_P(RelayBaseTest, CustomUrlWinsOnlyWhenItHasText) {
    const auto& c = GetParam();
    SharedConfig::Values values;
    values.deviceToken = c.deviceToken;
    values.relayWsUrl = c.relayWsUrl;
    values.relayOverride = c.relayOverride;
    EXPECT_EQ(RelayBase::choose(values), c.expected);
}

using Source = RelayBase::Source;
const std::string kPaired = "wss://relay.example/r";

INSTANTIATE_TEST_SUITE_P(
    Choices, RelayBaseTest,
    ::testing::Values(
        Case{"pairingUrlWithoutOverride", "tok", kPaired, std::nullopt,
             RelayBase{kPaired, Source::pairing}},
        Case{"emptyOverride", "tok", kPaired, "", RelayBase{kPaired, Source::pairing}},
        Case{"blankOverride", "tok", kPaired, " \n\t\u00a0", RelayBase{kPaired, Source::pairing}},
        Case{"overrideTrimmed", "tok", kPaired, "  wss://mine.example/x \n",
             RelayBase{"wss://mine.example/x", Source::customUrl}},
        // Whatever the user typed is used; the client reports a URL that does not parse.
        Case{"overrideNotChecked", "tok", kPaired, "not a url",
             RelayBase{"not a url", Source::customUrl}},
        Case{"pairingUrlKeptAsStored", "tok", " wss://r ", std::nullopt,
             RelayBase{" wss://r ", Source::pairing}},
        Case{"noTokenEvenWithOverride", std::nullopt, kPaired, "wss://mine", std::nullopt},
        Case{"emptyToken", "", kPaired, std::nullopt, std::nullopt},
        Case{"noRelayUrlEvenWithOverride", "tok", std::nullopt, "wss://mine", std::nullopt},
        Case{"emptyRelayUrl", "tok", "", "wss://mine", std::nullopt}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace velmorand::extension
