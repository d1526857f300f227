#include "velmorand/ui/ExtensionLog.h"

#include <gtest/gtest.h>

#include <fstream>

#include "FakeBundle.h"
#include "TempDir.h"
#include "velmorand/config/AppGroup.h"

namespace velmorand {
namespace {

// A container directory the test owns, counting how often it was asked for.
class CountingGroupContainers : public GroupContainers {
  public:
    std::optional<std::filesystem::path> containerDirectory(std::string_view group) const override {
        ++calls;
        lastGroup = std::string(group);
        return directory;
    }

    std::optional<std::filesystem::path> directory;
    mutable int calls = 0;
    mutable std::string lastGroup;
};

class ExtensionLogTest : public ::testing::Test {
  protected:
    ExtensionLogTest() { containers.directory = containerDir.path(); }

    std::string read(const std::optional<std::string>& log, bool grant = true) {
        if (grant) {  // a provisioning profile granting the shared group
            std::ofstream(bundleDir.path() / "embedded.mobileprovision")
                << "\x30\x82<?xml version=\"1.0\"?><plist version=\"1.0\"><dict>"
                   "<key>Entitlements</key><dict><key>com.apple.security.application-groups</key>"
                   "<array><string>group.co.velmorand.connect</string></array></dict></dict>"
                   "</plist>\x01";
        }
        if (log) {
            std::ofstream(containerDir.path() / "extension.log", std::ios::binary) << *log;
        }
        testing::FakeBundle bundle(bundleDir.path());
        return ExtensionLog::readExtLog(AppGroup(bundle), containers);
    }

    testing::TempDir bundleDir;
    testing::TempDir containerDir;
    CountingGroupContainers containers;
};

TEST_F(ExtensionLogTest, KeepsTheLastFourThousandUserPerceivedCharacters) {
    const std::string tail(4000, 'b');
    std::string clusters = "x";  // e + combining acute, and a flag: one character each
    for (int i = 0; i < 4000; ++i) {
        clusters += i % 2 ? "\xf0\x9f\x87\xab\xf0\x9f\x87\xb7" : "e\xcc\x81";
    }
    const std::pair<std::string, std::string> cases[] = {
        {std::string(3999, 'a'), std::string(3999, 'a')},
        {std::string(6000, 'a') + tail, tail},
        {clusters, clusters.substr(1)},
    };
    for (const auto& [log, shown] : cases) {
        EXPECT_EQ(read(log), shown) << log.size();
    }
    EXPECT_EQ(containers.lastGroup, "group.co.velmorand.connect");
}

TEST_F(ExtensionLogTest, ReadsAsEmptyWhenThereIsNothingValidToShow) {
    EXPECT_EQ(read(std::nullopt), "");  // no file
    for (const char* log : {"", "good line\nbad \xc3\x28 byte\n", "truncated \xe2\x82"}) {
        EXPECT_EQ(read(log), "") << log;
    }
    containers.directory.reset();
    EXPECT_EQ(read("fine"), "");
}

}  // namespace
}  // namespace velmorand
