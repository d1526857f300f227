#include "velmorand/desktop/DesktopBundle.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>

#include "TempDir.h"

namespace velmorand {
namespace {

using testing::TempDir;

TEST(DesktopBundleTest, FindsResourcesPlugInsAndTheDirectory) {
    TempDir dir;
    std::ofstream(dir.path() / "embedded.mobileprovision") << "x";
    const DesktopBundle bundle(dir.path());
    EXPECT_EQ(bundle.resource("embedded", "mobileprovision"),
              dir.path() / "embedded.mobileprovision");
    EXPECT_EQ(bundle.resource("embedded", "plist"), std::nullopt);
    EXPECT_EQ(bundle.plugInsDirectory(), dir.path() / "PlugIns");

    const auto environment = [](std::string_view name) -> std::optional<std::string> {
        return name == "VELMORAND_BUNDLE_DIR" ? std::optional<std::string>("/env") : std::nullopt;
    };
    EXPECT_EQ(DesktopBundle::resolveDirectory("/opt", "/built", environment), "/opt");
    EXPECT_EQ(DesktopBundle::resolveDirectory(std::nullopt, "/built", environment), "/env");
    EXPECT_EQ(DesktopBundle::resolveDirectory(std::nullopt, "/built",
                                              [](auto) { return std::optional<std::string>(); }),
              "/built");
}

TEST(DesktopBundleTest, IdentifierFromInfoPlist) {
    const auto xml = [](std::string_view value) {
        return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>CFBundleIdentifier</key>" +
               std::string(value) + "</dict></plist>";
    };
    const std::pair<std::optional<std::string>, std::optional<std::string>> cases[] = {
        {xml("<string>co.velmorand.connect</string>"), "co.velmorand.connect"},
        {std::nullopt, "co.velmorand.connect"},  // the binary form
        {xml("<integer>7</integer>"), std::nullopt},
        {"not a plist", std::nullopt},
        {"", std::nullopt},
    };
    for (const auto& [contents, expected] : cases) {
        TempDir dir;
        if (!contents) {
            std::filesystem::copy_file(VELMORAND_PLATFORM_FIXTURES "/Info.bplist",
                                       dir.path() / "Info.plist");
        } else if (!contents->empty()) {
            std::ofstream(dir.path() / "Info.plist") << *contents;
        }
        EXPECT_EQ(DesktopBundle(dir.path()).bundleIdentifier(), expected) << contents.value_or("");
    }
}

TEST(DesktopGroupContainersTest, CreatesOnlyTheKnownGroupPrivately) {
    TempDir dir;
    const DesktopGroupContainers containers{DataRoot(dir.path() / "data")};
    const auto container = containers.containerDirectory("group.co.velmorand.connect");
    ASSERT_EQ(container, dir.path() / "data" / "Group Containers" / "group.co.velmorand.connect");
    struct stat info {};
    ASSERT_EQ(::stat(container->c_str(), &info), 0);
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_EQ(containers.containerDirectory("group.co.velmorand.other"), std::nullopt);
}

}  // namespace
}  // namespace velmorand
