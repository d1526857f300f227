#include "velmorand/config/AppGroup.h"

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
        // High Latin-1 bytes inside the payload decode one character each.
        {profile(std::string("<array><string>Caf\xe9 \xa9</string>") + kGroup + "</array>"), true},
        {profile("<array><string>group.co.Velmorand.connect</string></array>"), false},
        {profile(kGroup), false},
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

}  // namespace
}  // namespace velmorand
