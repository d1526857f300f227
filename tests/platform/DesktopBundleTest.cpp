#include "velmorand/desktop/DesktopBundle.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fstream>
#include <thread>

#include "TempDir.h"
#include "velmorand/desktop/StderrLog.h"

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

TEST(StderrLogTest, LinesFromManyThreadsArriveWhole) {
    int pipeEnds[2];
    ASSERT_EQ(::pipe(pipeEnds), 0);
    std::string received;
    std::thread reader([&] {
        char buffer[4096];
        for (ssize_t count; (count = ::read(pipeEnds[0], buffer, sizeof buffer)) > 0;) {
            received.append(buffer, static_cast<std::size_t>(count));
        }
    });
    {
        StderrLog log(pipeEnds[1]);
        std::vector<std::jthread> writers;
        for (char tag = 'a'; tag < 'e'; ++tag) {
            writers.emplace_back([&log, tag] {
                for (int i = 0; i < 200; ++i) {
                    log.write(std::string(300, tag));
                }
            });
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
