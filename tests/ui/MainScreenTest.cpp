#include "velmorand/ui/MainScreen.h"

#include <gtest/gtest.h>

namespace velmorand {
namespace {

TEST(MainScreenTest, PairButtonTrimsOnlySpacesAndTabs) {
    const std::tuple<const char*, bool, bool> cases[] = {
        {"", false, false},        {" \t \t", false, false}, {"  abc  ", false, true},
        {"abc", true, false},      {"\r\n", false, true},    {"\u00a0", false, true},
        {"\t\x0b\t", false, true},
    };
    for (const auto& [key, busy, enabled] : cases) {
        EXPECT_EQ(MainScreen::pairEnabled(key, busy), enabled) << '"' << key << "\" " << busy;
    }
}

TEST(MainScreenTest, BroadcastGetsTheModelsIdentifierOnlyWhenPairedWithAnExtension) {
    using Notes = MainScreen::BroadcastNotes;
    const std::tuple<bool, std::optional<std::string>, bool, Notes> cases[] = {
        {false, std::nullopt, false, {true, false, false}},
        {false, "x.upload", false, {true, false, false}},
        {true, std::nullopt, false, {false, false, true}},
        {true, "x.upload", true, {false, true, false}},
    };
    for (const auto& [paired, found, given, notes] : cases) {
        SCOPED_TRACE(::testing::Message() << paired << ' ' << found.value_or("-"));
        const auto identifier = MainScreen::broadcastIdentifier(paired, found, "model.id");
        EXPECT_EQ(identifier, given ? std::optional<std::string>("model.id") : std::nullopt);
        EXPECT_EQ(MainScreen::broadcastTitle(identifier),
                  given ? "Start Broadcast" : "Broadcast extension missing");
        EXPECT_EQ(MainScreen::broadcastNotes(paired, found.has_value()), notes);
    }
}

TEST(MainScreenTest, TextsFallBackOnlyWhenEmpty) {
    EXPECT_EQ(MainScreen::pairedLabel(""), "Paired");
    EXPECT_EQ(MainScreen::pairedLabel(" "), " ");
    EXPECT_EQ(MainScreen::logText(""), "(empty — start a broadcast first)");
    EXPECT_EQ(MainScreen::logText("\n"), "\n");
    EXPECT_FALSE(MainScreen::showsLine(""));
    EXPECT_TRUE(MainScreen::showsLine(" "));
}

}  // namespace
}  // namespace velmorand
