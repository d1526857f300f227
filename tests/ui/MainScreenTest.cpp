#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "velmorand/ui/MainScreen.h"

namespace velmorand {
namespace {

TEST(MainScreenPairButton, TrimsOnlySpacesAndTabs) {
    const struct {
        const char* key;
        bool busy;
        bool enabled;
    } cases[] = {
        {"", false, false},       {"   ", false, false},     {" \t \t", false, false},
        {"  abc  ", false, true}, {"abc", true, false},      {"  ", true, false},
        {"\n", false, true},      {"\r\n", false, true},     {"\u00a0", false, true},
        {"\u2003", false, true},  {"\t\x0b\t", false, true},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(MainScreen::pairEnabled(c.key, c.busy), c.enabled)
            << '"' << c.key << "\" busy=" << c.busy;
    }
}

TEST(MainScreenBroadcast, GivesTheModelsIdentifierOnlyWhenPairedWithAnExtension) {
    const struct {
        bool paired;
        std::optional<std::string> found;
        std::optional<std::string> identifier;
    } cases[] = {
        {false, std::nullopt, std::nullopt},
        {false, "x.upload", std::nullopt},
        {true, std::nullopt, std::nullopt},
        {true, "x.upload", "model.id"},
    };
    for (const auto& c : cases) {
        const auto identifier = MainScreen::broadcastIdentifier(c.paired, c.found, "model.id");
        EXPECT_EQ(identifier, c.identifier) << c.paired << ' ' << c.found.value_or("-");
        EXPECT_EQ(MainScreen::broadcastTitle(identifier),
                  c.identifier ? "Start Broadcast" : "Broadcast extension missing");
    }
}

TEST(MainScreenBroadcast, ShowsOneNoteForEachState) {
    using Notes = MainScreen::BroadcastNotes;
    EXPECT_EQ(MainScreen::broadcastNotes(false, false), (Notes{true, false, false}));
    EXPECT_EQ(MainScreen::broadcastNotes(false, true), (Notes{true, false, false}));
    EXPECT_EQ(MainScreen::broadcastNotes(true, true), (Notes{false, true, false}));
    EXPECT_EQ(MainScreen::broadcastNotes(true, false), (Notes{false, false, true}));
}

TEST(MainScreenTexts, FallBackOnlyForEmptyText) {
    EXPECT_EQ(MainScreen::pairedLabel(""), "Paired");
    EXPECT_EQ(MainScreen::pairedLabel(" "), " ");
    EXPECT_EQ(MainScreen::pairedLabel("Ann's phone"), "Ann's phone");
    EXPECT_EQ(MainScreen::logText(""), "(empty — start a broadcast first)");
    EXPECT_EQ(MainScreen::logText("\n"), "\n");
    EXPECT_FALSE(MainScreen::showsLine(""));
    EXPECT_TRUE(MainScreen::showsLine(" "));
}

}  // namespace
}  // namespace velmorand
