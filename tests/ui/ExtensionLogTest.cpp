#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <optional>
#include <string>

#include "FakeBundle.h"
#include "TempDir.h"
#include "UiFixture.h"
#include "velmorand/config/AppGroup.h"
#include "velmorand/platform/Bundle.h"
#include "velmorand/ui/ExtensionLog.h"

namespace velmorand {
namespace {

namespace fs = std::filesystem;

// A container directory the test owns, counting how often it was asked for.
class CountingGroupContainers : public GroupContainers {
  public:
    std::optional<fs::path> containerDirectory(std::string_view groupName) const override {
        ++calls;
        lastGroup = std::string(groupName);
        return directory;
    }

    std::optional<fs::path> directory;
    mutable int calls = 0;
    mutable std::string lastGroup;
};

class ExtensionLogTest : public ::testing::Test {
  protected:
    ExtensionLogTest() {
        testing::grantSharedGroup(bundleDir.path());
        containers.directory = containerDir.path();
    }

    void writeLog(const std::string& bytes) {
        std::ofstream(containerDir.path() / "extension.log", std::ios::binary) << bytes;
    }
    std::string read() { return ExtensionLog::readExtLog(appGroup, containers); }

    testing::TempDir bundleDir;
    testing::TempDir containerDir;
    testing::FakeBundle bundle{bundleDir.path()};
    AppGroup appGroup{bundle};
    CountingGroupContainers containers;
};

// Lines "0000\n", "0001\n", … ; every character is its own cluster.
std::string numberedLines(std::size_t characters) {
    std::string text;
    for (int line = 0; text.size() < characters; ++line) {
        char buffer[16];
        std::snprintf(buffer, sizeof buffer, "%04d\n", line);
        text += buffer;
    }
    text.resize(characters);
    return text;
}

TEST_F(ExtensionLogTest, KeepsTheLastFourThousandCharacters) {
    const auto shortLog = numberedLines(3999);
    writeLog(shortLog);
    EXPECT_EQ(read(), shortLog);

    const auto longLog = numberedLines(10000);
    writeLog(longLog);
    EXPECT_EQ(read(), longLog.substr(6000));
    EXPECT_EQ(containers.lastGroup, "group.co.velmorand.connect");
}

TEST_F(ExtensionLogTest, CountsUserPerceivedCharactersNotBytes) {
    // "é" as e + combining acute: one character, three bytes. Plus a flag of two code points.
    const std::string accented = "e\xcc\x81";
    const std::string flag = "\xf0\x9f\x87\xab\xf0\x9f\x87\xb7";
    std::string log = "x";
    for (int i = 0; i < 4000; ++i) {
        log += (i % 2 == 0) ? accented : flag;
    }
    writeLog(log);
    EXPECT_EQ(read(), log.substr(1));

    writeLog("ab" + log);
    EXPECT_EQ(read(), log.substr(1));
}

TEST_F(ExtensionLogTest, ReadsAsEmptyWhenThereIsNothingValidToShow) {
    EXPECT_EQ(read(), "");  // no file

    writeLog("");
    EXPECT_EQ(read(), "");

    writeLog("good line\nbad \xc3\x28 byte\n");
    EXPECT_EQ(read(), "");

    writeLog("truncated \xe2\x82");
    EXPECT_EQ(read(), "");

    writeLog("fine");
    containers.directory.reset();
    EXPECT_EQ(read(), "");
}

TEST(ExtensionLogWithoutGroup, TouchesNoFile) {
    testing::TempDir bundleDir;
    testing::TempDir containerDir;
    std::ofstream(containerDir.path() / "extension.log") << "hello";
    testing::FakeBundle bundle{bundleDir.path()};  // no profile: no group
    AppGroup appGroup{bundle};
    CountingGroupContainers containers;
    containers.directory = containerDir.path();

    EXPECT_EQ(ExtensionLog::readExtLog(appGroup, containers), "");
    EXPECT_EQ(containers.calls, 0);
}

}  // namespace
}  // namespace velmorand
