#include "velmorand/config/AppGroup.h"

#include <atomic>
#include <filesystem>
#include <latch>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "FakeBundle.h"
#include "Profiles.h"
#include "TempDir.h"

namespace velmorand {
namespace {

using testing::FakeBundle;
using testing::TempDir;

struct ProfileCase {
    const char* name;
    std::string bytes;
    bool expected;
};

class AppGroupProfileTest : public ::testing::TestWithParam<ProfileCase> {};

TEST_P(AppGroupProfileTest, ReadsTheGroupListOutOfTheEmbeddedProfile) {
    TempDir dir;
    testing::writeProfile(dir.path(), GetParam().bytes);
    FakeBundle bundle(dir.path());

    EXPECT_EQ(AppGroup::hasAppGroupInEmbeddedProvision(bundle), GetParam().expected);
    EXPECT_EQ(AppGroup(bundle).available(), GetParam().expected);
}

std::vector<ProfileCase> profileCases() {
    using testing::profilePlist;
    using testing::signedContainer;
    const std::string entitled =
        profilePlist("<array><string>group.co.velmorand.connect</string></array>");
    const std::string amongOthers = profilePlist(
        "<array><string>group.co.other</string><string>group.co.velmorand.connect</string>"
        "<string>group.co.velmorand.connect.beta</string></array>");
    return {
        {"BareXml", entitled, true},
        {"JunkAroundTheXml", signedContainer(entitled), true},
        {"AmongOtherGroups", signedContainer(amongOthers), true},
        // High Latin-1 bytes inside the payload still decode, one character each.
        {"HighBytesInsideThePayload",
         signedContainer(profilePlist("<array><string>group.co.velmorand.connect</string></array>",
                                      "Caf\xe9 \xa9")),
         true},
        {"WrongCase",
         signedContainer(
             profilePlist("<array><string>group.co.Velmorand.connect</string></array>")),
         false},
        {"SingleStringInsteadOfArray",
         signedContainer(profilePlist("<string>group.co.velmorand.connect</string>")), false},
        {"ArrayWithANonString",
         signedContainer(profilePlist(
             "<array><string>group.co.velmorand.connect</string><integer>1</integer></array>")),
         false},
        {"EndMarkerBeforeStart", "</plist>" + entitled.substr(0, entitled.size() - 8), false},
        {"NoEndMarker", entitled.substr(0, entitled.size() - 8), false},
        {"NotAPropertyList", "<?xml version=\"1.0\"?><html></html></plist>", false},
        {"TopLevelArray",
         "<?xml version=\"1.0\"?><plist version=\"1.0\"><array><string>group.co.velmorand.connect"
         "</string></array></plist>",
         false},
        {"EntitlementsNotADictionary",
         "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>Entitlements</key>"
         "<array><string>group.co.velmorand.connect</string></array></dict></plist>",
         false},
    };
}

INSTANTIATE_TEST_SUITE_P(Profiles, AppGroupProfileTest, ::testing::ValuesIn(profileCases()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(AppGroupTest, NoEmbeddedProfileMeansUnavailable) {
    TempDir dir;
    FakeBundle bundle(dir.path());
    EXPECT_FALSE(AppGroup(bundle).available());
}

TEST(AppGroupTest, AnswerHoldsAfterTheProfileChanges) {
    TempDir dir;
    testing::writeEntitledProfile(dir.path());
    FakeBundle bundle(dir.path());
    AppGroup group(bundle);
    ASSERT_TRUE(group.available());

    std::filesystem::remove(dir.path() / "embedded.mobileprovision");
    EXPECT_TRUE(group.available());
    EXPECT_FALSE(AppGroup(bundle).available());
}

class CountingBundle : public FakeBundle {
  public:
    using FakeBundle::FakeBundle;
    std::optional<std::filesystem::path> resource(std::string_view name,
                                                  std::string_view extension) const override {
        ++lookups;
        return FakeBundle::resource(name, extension);
    }
    mutable std::atomic<int> lookups{0};
};

TEST(AppGroupTest, ConcurrentFirstReadsEvaluateOnceAndAgree) {
    TempDir dir;
    testing::writeEntitledProfile(dir.path());
    CountingBundle bundle(dir.path());
    AppGroup group(bundle);

    constexpr int kThreads = 8;
    std::latch start(kThreads);
    std::vector<int> seen(kThreads, -1);
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&, i] {
            start.arrive_and_wait();
            seen[i] = group.available() ? 1 : 0;
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }

    EXPECT_EQ(bundle.lookups.load(), 1);
    for (int i = 0; i < kThreads; ++i) {
        EXPECT_EQ(seen[i], 1) << "thread " << i;
    }
}

}  // namespace
}  // namespace velmorand
