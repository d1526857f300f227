#include "velmorand/desktop/PlistKeychain.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>

#include "TempDir.h"

namespace velmorand {
namespace {

using testing::TempDir;
namespace kc = keychain;

StoredValue text(const char* value) {
    return std::string(value);
}

std::string profileXml(std::string_view entitlements) {
    return std::string(R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>Name</key><string>Velmorand Connect</string>
  <key>Entitlements</key><dict>)") +
           std::string(entitlements) + "</dict>\n</dict></plist>";
}

const std::string kTeamGroups = R"(
    <key>application-identifier</key><string>TEAM1.co.velmorand.connect</string>
    <key>keychain-access-groups</key>
    <array><string>TEAM1.co.velmorand.connect</string><string>TEAM1.co.velmorand.shared</string></array>)";

class PlistKeychainTest : public ::testing::Test {
  protected:
    // The signature container around the list holds arbitrary bytes, NULs and 0xFF included.
    std::filesystem::path writeProfile(std::string_view entitlements) {
        const auto path = dir.path() / "embedded.mobileprovision";
        std::ofstream out(path, std::ios::binary);
        out << std::string("\x30\x82\x00\xff\xfe<plist", 12) << profileXml(entitlements)
            << std::string("\x00\xa0</plist>\x01", 11);
        return path;
    }

    KeychainAttributes probe() const {
        return {{"class", text("genp")},
                {"acct", text("velmorand.bundleSeedID")},
                {"svce", text("")},
                {"r_Attributes", true}};
    }

    KeychainAttributes mirror(const char* group) const {
        return {{"class", text("genp")},
                {"svce", text("co.velmorand.connect.config")},
                {"acct", text("sharedConfig")},
                {"agrp", text(group)}};
    }

    TempDir dir;
    std::filesystem::path file = dir.path() / "Keychain" / "keychain.plist";
};

TEST_F(PlistKeychainTest, ProbeItemLandsInTheProfilesDefaultGroup) {
    PlistKeychain chain(file, writeProfile(kTeamGroups));
    KeychainResult result;
    EXPECT_EQ(chain.copyMatching(probe(), &result), kc::kItemNotFound);
    ASSERT_EQ(chain.add(probe(), &result), kc::kSuccess);
    ASSERT_TRUE(std::holds_alternative<KeychainAttributes>(result));
    const auto attributes = std::get<KeychainAttributes>(result);
    EXPECT_EQ(attributes.at("agrp"), text("TEAM1.co.velmorand.connect"));
    EXPECT_FALSE(attributes.contains("r_Attributes"));

    KeychainResult again;
    EXPECT_EQ(chain.copyMatching(probe(), &again), kc::kSuccess);
    EXPECT_EQ(again, result);
    EXPECT_EQ(chain.add(probe(), nullptr), kc::kDuplicateItem);
}

TEST_F(PlistKeychainTest, StoresReturnsAndRemovesItemsAcrossInstances) {
    const Bytes secret = {'{', '}', 0x00, 0xFF};
    {
        PlistKeychain chain(file, writeProfile(kTeamGroups));
        auto item = mirror("TEAM1.co.velmorand.shared");
        item.emplace("v_Data", secret);
        item.emplace("pdmn", text("akpu"));
        KeychainResult result = Bytes{1};
        ASSERT_EQ(chain.add(item, &result), kc::kSuccess);
        EXPECT_TRUE(std::holds_alternative<std::monostate>(result));
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

    KeychainResult attributes;
    ASSERT_EQ(
        chain.copyMatching({{"acct", text("sharedConfig")}, {"r_Attributes", true}}, &attributes),
        kc::kSuccess);
    const auto& found = std::get<KeychainAttributes>(attributes);
    EXPECT_EQ(found.at("pdmn"), text("akpu"));
    EXPECT_FALSE(found.contains("v_Data"));

    EXPECT_EQ(chain.copyMatching(mirror("TEAM1.other"), nullptr), kc::kItemNotFound);
    EXPECT_EQ(chain.remove(mirror("TEAM1.co.velmorand.shared")), kc::kSuccess);
    EXPECT_EQ(chain.remove(mirror("TEAM1.co.velmorand.shared")), kc::kItemNotFound);
    EXPECT_EQ(chain.copyMatching(query, &result), kc::kItemNotFound);
}

TEST_F(PlistKeychainTest, RemoveDeletesEveryMatch) {
    PlistKeychain chain(file, writeProfile(kTeamGroups));
    ASSERT_EQ(chain.add({{"class", text("genp")}, {"acct", text("a")}}, nullptr), kc::kSuccess);
    ASSERT_EQ(chain.add({{"class", text("genp")}, {"acct", text("b")}}, nullptr), kc::kSuccess);
    ASSERT_EQ(chain.add({{"class", text("genp")},
                         {"acct", text("a")},
                         {"agrp", text("TEAM1.co.velmorand.shared")}},
                        nullptr),
              kc::kSuccess);
    EXPECT_EQ(chain.remove({{"acct", text("a")}}), kc::kSuccess);
    EXPECT_EQ(chain.copyMatching({{"acct", text("a")}}, nullptr), kc::kItemNotFound);
    EXPECT_EQ(chain.copyMatching({{"acct", text("b")}}, nullptr), kc::kSuccess);
}

TEST_F(PlistKeychainTest, AccessGroupsFollowTheProfile) {
    struct Case {
        const char* label;
        std::optional<std::string> entitlements;  // absent: no profile at all
        std::optional<std::string> defaultGroup;
        std::vector<std::string> granted;
        std::vector<std::string> refused;
    };
    const Case cases[] = {
        {"access groups",
         kTeamGroups,
         "TEAM1.co.velmorand.connect",
         {"TEAM1.co.velmorand.shared"},
         {"TEAM1.co.velmorand.other", "TEAM2.co.velmorand.shared"}},
        {"application identifier only",
         "<key>application-identifier</key><string>TEAM3.co.velmorand.connect</string>",
         "TEAM3.co.velmorand.connect",
         {"TEAM3.co.velmorand.connect"},
         {"TEAM3.co.velmorand.shared"}},
        {"wildcard",
         "<key>application-identifier</key><string>TEAM4.co.velmorand.connect</string>"
         "<key>keychain-access-groups</key><array><string>TEAM4.*</string></array>",
         "TEAM4.co.velmorand.connect",
         {"TEAM4.co.velmorand.shared", "TEAM4.anything"},
         {"TEAM5.co.velmorand.shared", "TEAM4"}},
        {"no groups at all", "<key>Other</key><true/>", std::nullopt, {}, {"TEAM1.x"}},
        {"no profile", std::nullopt, std::nullopt, {}, {"TEAM1.co.velmorand.shared"}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.label);
        TempDir scratch;
        const auto keychainFile = scratch.path() / "keychain.plist";
        std::optional<std::filesystem::path> profile;
        if (c.entitlements) {
            profile = writeProfile(*c.entitlements);
        }
        PlistKeychain chain(keychainFile, profile);
        EXPECT_EQ(chain.defaultAccessGroup(), c.defaultGroup);

        KeychainResult result;
        const int status = chain.add(
            {{"class", text("genp")}, {"acct", text("x")}, {"r_Attributes", true}}, &result);
        if (c.defaultGroup) {
            ASSERT_EQ(status, kc::kSuccess);
            EXPECT_EQ(std::get<KeychainAttributes>(result).at("agrp"),
                      StoredValue{*c.defaultGroup});
        } else {
            EXPECT_EQ(status, kc::kMissingEntitlement);
        }
        for (const auto& group : c.granted) {
            EXPECT_EQ(chain.add(mirror(group.c_str()), nullptr), kc::kSuccess) << group;
        }
        for (const auto& group : c.refused) {
            EXPECT_EQ(chain.add(mirror(group.c_str()), nullptr), kc::kMissingEntitlement) << group;
        }
    }
}

TEST_F(PlistKeychainTest, ProfileWithoutAWellOrderedListGrantsNothing) {
    const auto path = dir.path() / "embedded.mobileprovision";
    std::ofstream(path, std::ios::binary)
        << "</plist>junk" << profileXml(kTeamGroups).substr(0, 60);
    PlistKeychain chain(file, path);
    EXPECT_EQ(chain.defaultAccessGroup(), std::nullopt);
    EXPECT_EQ(chain.add(probe(), nullptr), kc::kMissingEntitlement);
}

TEST_F(PlistKeychainTest, DamagedFileReadsEmptyAndIsSetAside) {
    std::filesystem::create_directories(file.parent_path());
    std::ofstream(file) << "<plist><dict/></plist>";  // a dictionary where an array belongs
    PlistKeychain chain(file, writeProfile(kTeamGroups));
    EXPECT_EQ(chain.copyMatching(probe(), nullptr), kc::kItemNotFound);
    EXPECT_EQ(chain.add(probe(), nullptr), kc::kSuccess);
    EXPECT_TRUE(std::filesystem::exists(file.string() + ".corrupt"));
    EXPECT_EQ(PlistKeychain(file, std::nullopt).copyMatching(probe(), nullptr), kc::kSuccess);
}

}  // namespace
}  // namespace velmorand
