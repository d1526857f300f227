#include <gtest/gtest.h>

#include "PairingHarness.h"

namespace velmorand {
namespace {

constexpr const char* kMarker = "p2p_load_pending";

TEST(WebRtcCapability, ClearsAStaleMarkerOnceInTheStoreThatHoldsIt) {
    const struct {
        bool linked, granted, groupOpens, available, groupAfter, standardAfter;
    } cases[] = {
        // Without the library nothing is touched.
        {false, true, true, false, true, true},
        {true, false, true, true, true, false},
        {true, true, true, true, false, true},
        {true, true, false, true, true, false},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        testing::PairingHarness h;
        if (c.granted) {
            testing::writeProfile(h.dir.path(), testing::kEntitledProfile);
        }
        h.stores.groupOpens = c.groupOpens;
        if (c.linked) {
            h.classes.classes.insert("RTCPeerConnectionFactory");
        }
        h.stores.group->setBool(kMarker, true);
        h.stores.standardStore->setBool(kMarker, true);

        EXPECT_EQ(h.webRtc.isAvailable(), c.available);
        EXPECT_EQ(h.webRtc.isAvailable(), c.available);
        // Cleared means set to false, not removed.
        EXPECT_EQ(h.stores.group->object(kMarker), StoredValue{c.groupAfter});
        EXPECT_EQ(h.stores.standardStore->object(kMarker), StoredValue{c.standardAfter});
        const int cleared = (c.groupAfter ? 0 : 1) + (c.standardAfter ? 0 : 1);
        EXPECT_EQ(h.stores.group->synchronizeCount + h.stores.standardStore->synchronizeCount,
                  cleared);
        EXPECT_EQ(h.log.lines(),
                  std::vector<std::string>(cleared,
                                           "[velmorand] cleared stale WebRTC load-pending — "
                                           "retrying P2P"));
    }
}

}  // namespace
}  // namespace velmorand
