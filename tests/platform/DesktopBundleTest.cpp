#include "velmorand/desktop/DesktopBundle.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <set>
#include <thread>

#include "TempDir.h"
#include "velmorand/desktop/StderrLog.h"

namespace velmorand {
namespace {

using testing::TempDir;

TEST(DesktopBundleTest, ResourcesAndPlugIns) {
    TempDir dir;
    std::ofstream(dir.path() / "embedded.mobileprovision") << "x";
    const DesktopBundle bundle(dir.path());
    EXPECT_EQ(bundle.installDirectory(), dir.path());
    EXPECT_EQ(bundle.resource("embedded", "mobileprovision"),
              dir.path() / "embedded.mobileprovision");
    EXPECT_EQ(bundle.resource("embedded", "plist"), std::nullopt);
    EXPECT_EQ(bundle.plugInsDirectory(), dir.path() / "PlugIns");
}

TEST(DesktopBundleTest, IdentifierFromInfoPlist) {
    // {CFBundleIdentifier: "co.velmorand.connect"} as a binary property list.
    constexpr unsigned char kBinary[] = {
        0x62, 0x70, 0x6c, 0x69, 0x73, 0x74, 0x30, 0x30, 0xd1, 0x01, 0x02, 0x5f, 0x10, 0x12, 0x43,
        0x46, 0x42, 0x75, 0x6e, 0x64, 0x6c, 0x65, 0x49, 0x64, 0x65, 0x6e, 0x74, 0x69, 0x66, 0x69,
        0x65, 0x72, 0x5f, 0x10, 0x14, 0x63, 0x6f, 0x2e, 0x76, 0x65, 0x6c, 0x6d, 0x6f, 0x72, 0x61,
        0x6e, 0x64, 0x2e, 0x63, 0x6f, 0x6e, 0x6e, 0x65, 0x63, 0x74, 0x08, 0x0b, 0x20, 0x00, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x01, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x03, 0x00,
        0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x37};
    const auto xml = [](std::string_view value) {
        return "<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
               "<key>CFBundleIdentifier</key>" +
               std::string(value) + "</dict></plist>";
    };
    const std::pair<std::string, std::optional<std::string>> cases[] = {
        {xml("<string>co.velmorand.connect</string>"), "co.velmorand.connect"},
        {std::string(reinterpret_cast<const char*>(kBinary), sizeof kBinary),
         "co.velmorand.connect"},
        {xml("<integer>7</integer>"), std::nullopt},
        {"not a plist", std::nullopt},
    };
    for (const auto& [contents, expected] : cases) {
        TempDir dir;
        std::ofstream(dir.path() / "Info.plist", std::ios::binary) << contents;
        EXPECT_EQ(DesktopBundle(dir.path()).bundleIdentifier(), expected) << contents;
    }
    TempDir empty;
    EXPECT_EQ(DesktopBundle(empty.path()).bundleIdentifier(), std::nullopt);
}

TEST(DesktopBundleTest, ResolvesTheBundleDirectory) {
    const auto environment = [](std::string_view name) -> std::optional<std::string> {
        return name == "VELMORAND_BUNDLE_DIR" ? std::optional<std::string>("/env") : std::nullopt;
    };
    const auto none = [](std::string_view) -> std::optional<std::string> { return std::nullopt; };
    EXPECT_EQ(DesktopBundle::resolveDirectory("/opt", "/built", environment), "/opt");
    EXPECT_EQ(DesktopBundle::resolveDirectory(std::nullopt, "/built", environment), "/env");
    EXPECT_EQ(DesktopBundle::resolveDirectory(std::nullopt, "/built", none), "/built");
}

TEST(DesktopGroupContainersTest, CreatesOnlyTheKnownGroupPrivately) {
    TempDir dir;
    const DesktopGroupContainers containers{DataRoot(dir.path() / "data")};
    const auto container = containers.containerDirectory("group.co.velmorand.connect");
    ASSERT_TRUE(container);
    EXPECT_EQ(*container, dir.path() / "data" / "Group Containers" / "group.co.velmorand.connect");
    struct stat info {};
    ASSERT_EQ(::stat(container->c_str(), &info), 0);
    EXPECT_TRUE(S_ISDIR(info.st_mode));
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_EQ(containers.containerDirectory("group.co.velmorand.other"), std::nullopt);
}

TEST(StderrLogTest, LinesFromManyThreadsArriveWhole) {
    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);
    std::string received;
    std::thread reader([&] {
        char buffer[4096];
        ssize_t count = 0;
        while ((count = ::read(pipeEnds[0], buffer, sizeof buffer)) > 0) {
            received.append(buffer, static_cast<std::size_t>(count));
        }
    });
    {
        StderrLog log(pipeEnds[1]);
        std::vector<std::thread> writers;
        for (char tag = 'a'; tag < 'e'; ++tag) {
            writers.emplace_back([&log, tag] {
                for (int i = 0; i < 200; ++i) {
                    log.write(std::string(300, tag));
                }
            });
        }
        for (auto& writer : writers) {
            writer.join();
        }
    }
    ::close(pipeEnds[1]);
    reader.join();
    ::close(pipeEnds[0]);

    std::size_t lines = 0;
    std::size_t start = 0;
    for (auto end = received.find('\n'); end != std::string::npos;
         start = end + 1, end = received.find('\n', start), ++lines) {
        const auto line = std::string_view(received).substr(start, end - start);
        ASSERT_EQ(line.size(), 300u);
        ASSERT_EQ(line.find_first_not_of(line[0]), std::string_view::npos);
    }
    EXPECT_EQ(lines, 800u);
    EXPECT_EQ(start, received.size());
}

}  // namespace
}  // namespace velmorand
