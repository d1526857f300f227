#include "velmorand/desktop/PlistKeychain.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "TempDir.h"

namespace velmorand {
namespace {

namespace kc = keychain;

StoredValue text(const char* value) {
    return std::string(value);
}

// A signed profile: arbitrary bytes, NULs and 0xFF included, around the XML list.
std::string profile(std::string_view entitlements) {
    return std::string("\x30\x82\x00\xff\xfe<plist", 12) +
           R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)" +
           "<key>Entitlements</key><dict>" + std::string(entitlements) + "</dict></dict></plist>" +
           std::string("\x00\xa0</plist>\x01", 11);
}

const std::string kTeamGroups =
    "<key>application-identifier</key><string>TEAM1.co.velmorand.connect</string>"
    "<key>keychain-access-groups</key><array><string>TEAM1.co.velmorand.connect</string>"
    "<string>TEAM1.co.velmorand.shared</string></array>";

const KeychainAttributes kProbe = {{"class", text("genp")},
                                   {"acct", text("velmorand.bundleSeedID")},
                                   {"svce", text("")},
                                   {"r_Attributes", true}};

KeychainAttributes mirror(const std::string& group) {
    return {{"class", text("genp")},
            {"svce", text("co.velmorand.connect.config")},
            {"acct", text("sharedConfig")},
            {"agrp", group}};
}

class PlistKeychainTest : public ::testing::Test {
  protected:
    std::filesystem::path writeProfile(const std::string& contents) {
        std::ofstream(dir.path() / "embedded.mobileprovision", std::ios::binary) << contents;
        return dir.path() / "embedded.mobileprovision";
    }

    testing::TempDir dir;
    std::filesystem::path file = dir.path() / "Keychain" / "keychain.plist";
};

TEST_F(PlistKeychainTest, ProbeItemLandsInTheProfilesDefaultGroup) {
    PlistKeychain chain(file, writeProfile(profile(kTeamGroups)));
    KeychainResult result;
    EXPECT_EQ(chain.copyMatching(kProbe, &result), kc::kItemNotFound);
    ASSERT_EQ(chain.add(kProbe, &result), kc::kSuccess);
    const auto attributes = std::get<KeychainAttributes>(result);
    EXPECT_EQ(attributes.at("agrp"), text("TEAM1.co.velmorand.connect"));
    EXPECT_FALSE(attributes.contains("r_Attributes"));
    KeychainResult again;
    EXPECT_EQ(chain.copyMatching(kProbe, &again), kc::kSuccess);
    EXPECT_EQ(again, result);
    EXPECT_EQ(chain.add(kProbe, nullptr), kc::kDuplicateItem);
}

TEST_F(PlistKeychainTest, StoresReturnsAndRemovesItemsAcrossInstances) {
    const Bytes secret = {'{', '}', 0x00, 0xFF};
    {
        PlistKeychain chain(file, writeProfile(profile(kTeamGroups)));
        auto item = mirror("TEAM1.co.velmorand.shared");
        item.emplace("v_Data", secret);
        item.emplace("pdmn", text("cku"));
        KeychainResult result = Bytes{1};
        ASSERT_EQ(chain.add(item, &result), kc::kSuccess);
        EXPECT_TRUE(std::holds_alternative<std::monostate>(result));
        ASSERT_EQ(chain.add({{"class", text("genp")}, {"acct", text("other")}}, nullptr),
                  kc::kSuccess);
    }
    struct stat info {};
    ASSERT_EQ(::stat(file.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0600u);

    PlistKeychain chain(file, std::nullopt);
    auto query = mirror("TEAM1.co.velmorand.shared");
    query.emplace("r_Data", true);
    query.emplace("m_Limit", text("m_LimitOne"));
    KeychainResult result;
    ASSERT_EQ(chain.copyMatching(query, &result), kc::kSuccess);
    EXPECT_EQ(result, KeychainResult{secret});
    ASSERT_EQ(chain.copyMatching({{"acct", text("sharedConfig")}, {"r_Attributes", true}}, &result),
              kc::kSuccess);
    EXPECT_EQ(std::get<KeychainAttributes>(result).at("pdmn"), text("cku"));
    EXPECT_FALSE(std::get<KeychainAttributes>(result).contains("v_Data"));
    EXPECT_EQ(chain.copyMatching(mirror("TEAM1.other"), nullptr), kc::kItemNotFound);

    // Removal takes every match, and only matches.
    EXPECT_EQ(chain.remove({{"class", text("genp")}}), kc::kSuccess);
    EXPECT_EQ(chain.remove(mirror("TEAM1.co.velmorand.shared")), kc::kItemNotFound);
    EXPECT_EQ(chain.copyMatching({{"acct", text("other")}}, nullptr), kc::kItemNotFound);
}

TEST_F(PlistKeychainTest, DamagedFileReadsEmptyAndIsSetAside) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << "<plist><dict/></plist>";  // a dictionary where an array belongs
    PlistKeychain chain(file, writeProfile(profile(kTeamGroups)));
    EXPECT_EQ(chain.copyMatching(kProbe, nullptr), kc::kItemNotFound);
    EXPECT_EQ(chain.add(kProbe, nullptr), kc::kSuccess);
    EXPECT_TRUE(std::filesystem::exists(file.string() + ".corrupt"));
    EXPECT_EQ(PlistKeychain(file, std::nullopt).copyMatching(kProbe, nullptr), kc::kSuccess);
}

}  // namespace
}  // namespace velmorand
