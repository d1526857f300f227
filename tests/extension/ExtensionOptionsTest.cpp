#include "velmorand/extension/DesktopChoice.h"
#include "velmorand/extension/ExtensionOptions.h"
#include "velmorand/extension/Supervisor.h"
#include "velmorand/extension/WebRtcLoad.h"

#include <gtest/gtest.h>

#include "InMemorySettings.h"

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

// A Wayland session never falls back to X11: its X server is Xwayland, with a few X windows only.
TEST(DesktopChoiceTest, TheSessionDecidesUnlessThePersonDoes) {
    using B = DesktopBackend;
    using Backends = std::vector<DesktopBackend>;
    // What the desktop shows, and the backends chosen or why there are none.
    const std::pair<DesktopFacts, std::variant<Backends, std::string>> rows[] = {
        {{std::nullopt, "x11", false, true}, Backends{B::x11}},
        {{std::nullopt, "wayland", true, true}, Backends{B::gnome, B::portal}},
        {{std::nullopt, "", true, true}, Backends{B::gnome, B::portal}},
        {{std::nullopt, "wayland", false, true}, Backends{B::gnome, B::portal}},
        {{"auto", "tty", false, true}, Backends{B::x11}},
        {{"x11", "wayland", true, true}, Backends{B::x11}},
        {{"portal", "x11", false, true}, Backends{B::portal}},
        {{"gnome", "", false, false}, Backends{B::gnome}},
        {{std::nullopt, "", false, false},
         std::string("no desktop to capture: neither a Wayland session (XDG_SESSION_TYPE, "
                     "WAYLAND_DISPLAY) nor an X11 display (DISPLAY)")},
        {{"kde", "wayland", true, false},
         std::string("unknown desktop \"kde\": choose x11, gnome, portal or auto")},
    };
    for (const auto& [facts, chosen] : rows) {
        EXPECT_EQ(backendsFor(facts), chosen)
            << facts.forced.value_or("-") << " " << facts.sessionType;
    }
}

// Crashes in a row wait longer and longer; a minute of good running starts the count again.
TEST(SupervisorTest, RestartsBackOffFromOneToThirtySecondsAndResetAfterAGoodMinute) {
    using std::chrono::seconds;
    Supervisor supervisor;
    const std::pair<seconds, seconds> runs[] = {
        {seconds(0), seconds(1)},   {seconds(2), seconds(2)},  {seconds(59), seconds(4)},
        {seconds(1), seconds(8)},   {seconds(1), seconds(16)}, {seconds(1), seconds(30)},
        {seconds(1), seconds(30)},  {seconds(60), seconds(1)}, {seconds(3), seconds(2)},
        {seconds(600), seconds(1)},
    };
    for (const auto& [ran, delay] : runs) {
        EXPECT_EQ(supervisor.delayAfter(ran), delay) << ran.count();
    }
}

constexpr const char* kMarker = "p2p_load_pending";

// Each row: the marker before, what the load says, whether it runs, the outcome, and the marker
// after. A crash while loading is a load that never returns: the marker it saw set stays set.
TEST(WebRtcLoadTest, LoadsUnderTheMarkerAndLeavesPluginsAloneAfterACrash) {
    struct Row {
        bool markedBefore;
        std::optional<std::string> missing;
        bool loads;
        std::optional<std::string> outcome;
    };
    const std::string crashed =
        "an earlier broadcast stopped while it loaded the WebRTC plug-ins; pair the device again "
        "to try peer-to-peer again";
    const Row rows[] = {
        {false, std::nullopt, true, std::nullopt},
        {false, "no webrtcbin", true, "no webrtcbin"},
        {true, std::nullopt, false, crashed},
    };
    for (const auto& row : rows) {
        testing::InMemorySettingsStore store;
        store.setBool(kMarker, row.markedBefore);
        bool loaded = false;
        const auto outcome = WebRtcLoad::attempt(store, [&] {
            loaded = true;
            EXPECT_TRUE(store.boolean(kMarker));
            EXPECT_GE(store.synchronizeCount, 1);
            return row.missing;
        });
        EXPECT_EQ(loaded, row.loads);
        EXPECT_EQ(outcome, row.outcome);
        EXPECT_EQ(store.boolean(kMarker), row.markedBefore);
    }
}

}  // namespace
}  // namespace velmorand::extension
