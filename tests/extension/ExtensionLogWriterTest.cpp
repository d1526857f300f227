#include "velmorand/extension/ExtensionLogWriter.h"

#include <gtest/gtest.h>

#include <fstream>

#include "RecordingLog.h"
#include "TempDir.h"

namespace velmorand::extension {
namespace {

using namespace std::chrono_literals;

constexpr const char* kStamp = "2023-11-14T22:13:20.123Z ";

class ExtensionLogWriterTest : public ::testing::Test {
  protected:
    ExtensionLogWriter::Options options(std::size_t maxBytes) {
        return {.maxBytes = maxBytes, .echo = &echo, .clock = [] {
                    return std::chrono::system_clock::time_point(1'700'000'000'123ms);
                }};
    }

    // The lines of the log (or of `path`), each without its time stamp once that is checked.
    std::vector<std::string> lines(const std::filesystem::path& path = {}) {
        std::ifstream in(path.empty() ? file : path);
        std::vector<std::string> lines;
        for (std::string line; std::getline(in, line);) {
            EXPECT_EQ(line.rfind(kStamp, 0), 0u) << line;
            lines.push_back(line.erase(0, std::string_view(kStamp).size()));
        }
        return lines;
    }

    testing::TempDir dir;
    std::filesystem::path file = dir.path() / "extension.log";
    testing::RecordingLog echo;
};

TEST_F(ExtensionLogWriterTest, EveryEventStaysOneLineOfValidUtf8) {
    const std::pair<std::string, std::string> cases[] = {
        {"two\nlines\r\tand a bell\x07 del\x7F", "two\\nlines\\r\\tand a bell\\x07 del\\x7f"},
        {"caf\xC3\xA9 \xE2\x80\x94 \xF0\x9F\x98\x80", "caf\xC3\xA9 \xE2\x80\x94 \xF0\x9F\x98\x80"},
        {"bad \xFF byte", "bad \xEF\xBF\xBD byte"},
        {"cut \xE2\x80", "cut \xEF\xBF\xBD\xEF\xBF\xBD"},
    };
    for (const auto& [in, out] : cases) {
        EXPECT_EQ(ExtensionLogWriter::sanitized(in, 100), out) << in;
    }
    // Long lines are cut on a character boundary, and end in an ellipsis.
    std::string accents;
    for (int i = 0; i < 20; ++i) {
        accents += "\xC3\xA9";
    }
    for (const auto& [text, bound] :
         {std::pair(std::string(40, 'x'), 10), std::pair(accents, 10), std::pair(accents, 11)}) {
        const auto out = ExtensionLogWriter::sanitized(text, bound);
        EXPECT_LE(out.size(), static_cast<std::size_t>(bound));
        EXPECT_TRUE(out.ends_with("…")) << out;
        EXPECT_EQ(ExtensionLogWriter::sanitized(out, 100), out);  // every character kept is whole
    }
    EXPECT_EQ(ExtensionLogWriter::sanitized(std::string(10, 'x'), 10), std::string(10, 'x'));
}

TEST_F(ExtensionLogWriterTest, SecretsNeverReachTheFileOrTheEcho) {
    ExtensionLogWriter log(file, options(4096));
    log.addSecret("tok-abcdef");
    log.addSecret("tok-abcdef-long");  // contains the other one
    log.addSecret("ab");               // too short to be one
    log.write("control: text \"tok-abcdef\"");
    log.write("tok-abcdef-longtok-abcdef at both ends tok-abcdef");
    log.write("[relay-client] recv error: ab — reconnecting");
    EXPECT_EQ(lines(), (std::vector<std::string>{"control: text \"<redacted>\"",
                                                 "<redacted><redacted> at both ends <redacted>",
                                                 "[relay-client] recv error: ab — reconnecting"}));
    for (const auto& line : echo.lines()) {
        EXPECT_EQ(line.find("tok-abc"), std::string::npos) << line;
    }
}

TEST_F(ExtensionLogWriterTest, RotationKeepsTheNewestWholeLinesUnderTheBound) {
    {
        std::ofstream out(file);  // an oversized file from an earlier run
        for (int i = 0; i < 100; ++i) {
            out << kStamp << "event " << i - 100 << " " << std::string(40, '-') << "\n";
        }
    }
    ExtensionLogWriter log(file, options(1000));
    std::size_t largest = 0;
    for (int i = 0; i < 400; ++i) {
        // Lines of varying length, some longer than the per-line cap.
        log.write("event " + std::to_string(i) + " " + std::string(std::size_t(i % 7) * 45, '.'));
        largest = std::max<std::size_t>(largest, std::filesystem::file_size(file));
        ASSERT_LE(std::filesystem::file_size(file), 1000u) << "after event " << i;
        if (i == 0) {
            EXPECT_EQ(lines().at(lines().size() - 2).rfind("event -1 ", 0), 0u);
        }
    }
    EXPECT_GT(largest, 500u);
    const auto kept = lines();
    ASSERT_FALSE(kept.empty());
    int expected = 400 - static_cast<int>(kept.size());  // consecutive, whole, newest last
    for (const auto& line : kept) {
        EXPECT_EQ(line.rfind("event " + std::to_string(expected++) + " ", 0), 0u) << line;
    }
    EXPECT_EQ(expected, 400);
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "extension.log.tmp"));

    // What the last rotation pushed out is in the previous file, up to the current one's start.
    const auto older = lines(dir.path() / "extension.log.1");
    ASSERT_FALSE(older.empty());
    const int first = 400 - static_cast<int>(kept.size());
    const auto joined = std::find_if(older.begin(), older.end(), [&](const std::string& line) {
        return line.rfind("event " + std::to_string(first) + " ", 0) == 0;
    });
    ASSERT_NE(joined, older.end());
    int next = first - static_cast<int>(joined - older.begin());
    for (const auto& line : older) {
        EXPECT_EQ(line.rfind("event " + std::to_string(next++) + " ", 0), 0u) << line;
    }
}

}  // namespace
}  // namespace velmorand::extension
