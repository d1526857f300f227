#include <gtest/gtest.h>

#include "PairingHarness.h"

namespace velmorand {
namespace {

using testing::PairingHarness;

constexpr const char* kMarker = "p2p_load_pending";
constexpr const char* kClearedLine = "[velmorand] cleared stale WebRTC load-pending — retrying P2P";

class WebRtcCapabilityTest : public ::testing::Test {
  protected:
    void linkWebRtc() { h.classes.classes.insert("RTCPeerConnectionFactory"); }

    PairingHarness h;
    testing::InMemorySettingsStore& group = *h.stores.group;
    testing::InMemorySettingsStore& standard = *h.stores.standardStore;
};

TEST_F(WebRtcCapabilityTest, WithoutTheLibraryItIsUnavailableAndTheMarkerStays) {
    standard.setBool(kMarker, true);
    EXPECT_FALSE(h.webRtc.isAvailable());
    EXPECT_TRUE(standard.boolean(kMarker));
    EXPECT_TRUE(h.log.lines().empty());
}

TEST_F(WebRtcCapabilityTest, AStaleMarkerIsClearedOnceAndLogged) {
    linkWebRtc();
    standard.setBool(kMarker, true);
    EXPECT_TRUE(h.webRtc.isAvailable());
    EXPECT_EQ(standard.object(kMarker), StoredValue{false});
    EXPECT_EQ(standard.synchronizeCount, 1);
    EXPECT_TRUE(h.webRtc.isAvailable());
    EXPECT_EQ(h.log.lines(), std::vector<std::string>{kClearedLine});
}

TEST_F(WebRtcCapabilityTest, NoMarkerMeansNoWrite) {
    linkWebRtc();
    EXPECT_TRUE(h.webRtc.isAvailable());
    EXPECT_FALSE(standard.object(kMarker));
    EXPECT_EQ(standard.synchronizeCount, 0);
    EXPECT_TRUE(h.log.lines().empty());
}

TEST_F(WebRtcCapabilityTest, WithTheAppGroupTheGroupStoreHoldsTheMarker) {
    testing::grantAppGroup(h.dir.path());
    linkWebRtc();
    group.setBool(kMarker, true);
    standard.setBool(kMarker, true);
    EXPECT_TRUE(h.webRtc.isAvailable());
    EXPECT_EQ(group.object(kMarker), StoredValue{false});
    EXPECT_TRUE(standard.boolean(kMarker));
    EXPECT_EQ(h.log.lines().size(), 1u);
}

TEST_F(WebRtcCapabilityTest, WithoutTheAppGroupTheStandardStoreHoldsTheMarker) {
    linkWebRtc();
    group.setBool(kMarker, true);
    standard.setBool(kMarker, true);
    EXPECT_TRUE(h.webRtc.isAvailable());
    EXPECT_TRUE(group.boolean(kMarker));
    EXPECT_EQ(standard.object(kMarker), StoredValue{false});
}

TEST_F(WebRtcCapabilityTest, AGroupSuiteThatWillNotOpenFallsBackToTheStandardStore) {
    testing::grantAppGroup(h.dir.path());
    h.stores.groupOpens = false;
    linkWebRtc();
    standard.setBool(kMarker, true);
    EXPECT_TRUE(h.webRtc.isAvailable());
    EXPECT_EQ(standard.object(kMarker), StoredValue{false});
}

}  // namespace
}  // namespace velmorand
