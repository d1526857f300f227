#include "velmorand/desktop/PlistKeychain.h"

#include <gtest/gtest.h>

#include <fstream>

#include "TempDir.h"

namespace velmorand {
namespace {

namespace kc = keychain;

StoredValue text(const char* value) {
    return std::string(value);
}

// The probe item, added without a group, lands in the first group the signed profile (arbitrary
// bytes around its XML) grants; it is found from then on, and never added twice.
TEST(PlistKeychainTest, ProbeItemLandsInTheProfilesDefaultGroup) {
    const testing::TempDir dir;
    const auto profile = dir.path() / "embedded.mobileprovision";
    std::ofstream(profile, std::ios::binary)
        << std::string("\x30\x82\x00\xff\xfe<plist", 12)
        << R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
           "<key>Entitlements</key><dict><key>keychain-access-groups</key><array>"
           "<string>TEAM1.co.velmorand.connect</string><string>TEAM1.co.velmorand.shared</string>"
           "</array></dict></dict></plist>"
        << std::string("\x00\xa0</plist>\x01", 11);
    PlistKeychain chain(dir.path() / "Keychain" / "keychain.plist", profile);
    const KeychainAttributes probe = {{"class", text("genp")},
                                      {"acct", text("velmorand.bundleSeedID")},
                                      {"svce", text("")},
                                      {"r_Attributes", true}};
    KeychainResult result;
    EXPECT_EQ(chain.copyMatching(probe, &result), kc::kItemNotFound);
    ASSERT_EQ(chain.add(probe, &result), kc::kSuccess);
    const auto attributes = std::get<KeychainAttributes>(result);
    EXPECT_EQ(attributes.at("agrp"), text("TEAM1.co.velmorand.connect"));
    EXPECT_FALSE(attributes.contains("r_Attributes"));
    KeychainResult again;
    EXPECT_EQ(chain.copyMatching(probe, &again), kc::kSuccess);
    EXPECT_EQ(again, result);
    EXPECT_EQ(chain.add(probe, nullptr), kc::kDuplicateItem);
}

}  // namespace
}  // namespace velmorand
