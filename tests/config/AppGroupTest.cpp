#include "velmorand/config/AppGroup.h"

#include <atomic>
#include <latch>
#include <thread>
#include <vector>

#include "ConfigFixture.h"

namespace velmorand {
namespace {

using testing::profilePlist;
using testing::signedContainer;

constexpr const char* kGroup = "<string>group.co.velmorand.connect</string>";

std::string profile(const std::string& groups) {
    return signedContainer(profilePlist(groups));
}

TEST(AppGroupTest, ReadsTheGroupListOutOfTheEmbeddedProfile) {
    const std::string bare = profilePlist(std::string("<array>") + kGroup + "</array>");
    const std::string cut = bare.substr(0, bare.size() - 8);
    const std::pair<std::optional<std::string>, bool> cases[] = {
        {std::nullopt, false},
        {bare, true},
        {testing::kEntitledProfile, true},
        // High Latin-1 bytes inside the payload decode one character each.
        {profile(std::string("<array><string>Caf\xe9 \xa9</string>") + kGroup + "</array>"), true},
        {profile("<array><string>group.co.Velmorand.connect</string></array>"), false},
        {profile("<array><string>group.co.velmorand.connect.beta</string></array>"), false},
        {profile(kGroup), false},
        {profile(std::string("<array>") + kGroup + "<integer>1</integer></array>"), false},
        {"</plist>" + cut, false},
        {cut, false},
        {"<?xml version=\"1.0\"?><html></html></plist>", false},
        {std::string("<?xml version=\"1.0\"?><plist version=\"1.0\"><array>") + kGroup +
             "</array></plist>",
         false},
        {std::string("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>Entitlements</key>"
                     "<array>") +
             kGroup + "</array></dict></plist>",
         false},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(&row - cases);
        const auto& [bytes, expected] = row;
        testing::TempDir dir;
        if (bytes) {
            testing::writeProfile(dir.path(), *bytes);
        }
        testing::FakeBundle bundle(dir.path());
        EXPECT_EQ(AppGroup::hasAppGroupInEmbeddedProvision(bundle), expected);
        EXPECT_EQ(AppGroup(bundle).available(), expected);
    }
}

struct CountingBundle : testing::FakeBundle {
    using FakeBundle::FakeBundle;
    std::optional<std::filesystem::path> resource(std::string_view name,
                                                  std::string_view extension) const override {
        ++lookups;
        return FakeBundle::resource(name, extension);
    }
    mutable std::atomic<int> lookups{0};
};

// Read once for the life of the answer, however many ask at first and whatever changes later.
TEST(AppGroupTest, ConcurrentFirstReadsEvaluateOnceAndAgree) {
    testing::TempDir dir;
    testing::writeProfile(dir.path(), testing::kEntitledProfile);
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
    EXPECT_EQ(seen, std::vector<int>(kThreads, 1));
    std::filesystem::remove(dir.path() / "embedded.mobileprovision");
    EXPECT_TRUE(group.available());
    EXPECT_FALSE(AppGroup(bundle).available());
}

}  // namespace
}  // namespace velmorand
