#include "velmorand/extension/WebRtcLoad.h"

#include <gtest/gtest.h>

#include "InMemorySettings.h"

namespace velmorand::extension {
namespace {

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
