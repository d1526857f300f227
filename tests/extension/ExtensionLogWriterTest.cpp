#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "RecordingLog.h"
#include "TempDir.h"
#include "velmorand/extension/ExtensionLogWriter.h"

namespace velmorand::extension {
namespace {

using namespace std::chrono_literals;

std::string contentOf(const std::filesystem::path& file) {
    std::ifstream in(file, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

// The text after "<timestamp> ".
std::string message(const std::string& line) {
    return line.substr(line.find(' ') + 1);
}

ExtensionLogWriter::Options fixedClock(std::size_t maxBytes = ExtensionLogWriter::kDefaultMaxBytes,
                                       Log* echo = nullptr) {
    return {.maxBytes = maxBytes, .echo = echo, .clock = [] {
                return std::chrono::system_clock::time_point(1'700'000'000'123ms);
            }};
}

TEST(ExtensionLogWriterTest, AppendsTimestampedLinesAndEchoesThem) {
    testing::TempDir dir;
    const auto file = dir.path() / "extension.log";
    std::ofstream(file) << "2023-01-01T00:00:00.000Z from an earlier run\n";
    testing::RecordingLog echo;
    {
        ExtensionLogWriter log(file, fixedClock(ExtensionLogWriter::kDefaultMaxBytes, &echo));
        log.write("started");
        log.write("encode: jpeg, 20 fps, quality 40%, scale 50%");
    }
    EXPECT_EQ(contentOf(file),
              "2023-01-01T00:00:00.000Z from an earlier run\n"
              "2023-11-14T22:13:20.123Z started\n"
              "2023-11-14T22:13:20.123Z encode: jpeg, 20 fps, quality 40%, scale 50%\n");
    EXPECT_EQ(echo.lines(), (std::vector<std::string>{
                                "2023-11-14T22:13:20.123Z started",
                                "2023-11-14T22:13:20.123Z encode: jpeg, 20 fps, quality 40%, "
                                "scale 50%"}));
}

TEST(ExtensionLogWriterTest, TimestampsAreUtcWithMilliseconds) {
    using std::chrono::system_clock;
    EXPECT_EQ(ExtensionLogWriter::timestamp(system_clock::time_point(0ms)),
              "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(ExtensionLogWriter::timestamp(system_clock::time_point(951'782'400'007ms)),
              "2000-02-29T00:00:00.007Z");
    EXPECT_EQ(ExtensionLogWriter::timestamp(system_clock::time_point(-1ms)),
              "1969-12-31T23:59:59.999Z");
}

TEST(ExtensionLogWriterTest, EveryEventStaysOneLineOfValidUtf8) {
    struct Case {
        std::string in;
        std::string out;
    };
    const std::vector<Case> cases = {
        {"plain", "plain"},
        {"two\nlines\r\tand a bell\x07", "two\\nlines\\r\\tand a bell\\x07"},
        {"caf\xC3\xA9 \xE2\x80\x94 \xF0\x9F\x98\x80", "caf\xC3\xA9 \xE2\x80\x94 \xF0\x9F\x98\x80"},
        {"bad \xFF byte", "bad \xEF\xBF\xBD byte"},
        {"cut \xE2\x80", "cut \xEF\xBF\xBD\xEF\xBF\xBD"},
        {"overlong \xC0\xAF", "overlong \xEF\xBF\xBD\xEF\xBF\xBD"},
        {"surrogate \xED\xA0\x80", "surrogate \xEF\xBF\xBD\xEF\xBF\xBD\xEF\xBF\xBD"},
        {"del\x7F", "del\\x7f"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(ExtensionLogWriter::sanitized(c.in, 100), c.out) << c.in;
    }
}

TEST(ExtensionLogWriterTest, LongLinesAreCutOnACharacterBoundary) {
    // 10 bytes of "é" (2 bytes each) cannot end in half a character.
    const std::string accents(40, 'x');
    std::string mixed;
    for (int i = 0; i < 20; ++i) {
        mixed += "\xC3\xA9";
    }
    for (const auto& [text, bound] : std::vector<std::pair<std::string, std::size_t>>{
             {accents, 10}, {mixed, 10}, {mixed, 11}, {mixed, 12}}) {
        const auto out = ExtensionLogWriter::sanitized(text, bound);
        EXPECT_LE(out.size(), bound);
        ASSERT_GE(out.size(), 3u);
        EXPECT_EQ(out.substr(out.size() - 3), "…");
        // Every character kept is whole: sanitizing again changes nothing.
        EXPECT_EQ(ExtensionLogWriter::sanitized(out, 100), out);
    }
    EXPECT_EQ(ExtensionLogWriter::sanitized(std::string(10, 'x'), 10), std::string(10, 'x'));
}

TEST(ExtensionLogWriterTest, SecretsNeverReachTheFileOrTheEcho) {
    testing::TempDir dir;
    const auto file = dir.path() / "extension.log";
    testing::RecordingLog echo;
    ExtensionLogWriter log(file, fixedClock(4096, &echo));
    log.addSecret("tok-abcdef");
    log.addSecret("tok-abcdef-long");  // contains the other one
    log.addSecret("ab");               // too short to be one
    log.write("control: text \"tok-abcdef\"");
    log.write("tok-abcdef-longtok-abcdef at both ends tok-abcdef");
    log.write("[relay-client] recv error: ab — reconnecting");

    const auto lines = linesOf(contentOf(file));
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(message(lines[0]), "control: text \"<redacted>\"");
    EXPECT_EQ(message(lines[1]), "<redacted><redacted> at both ends <redacted>");
    EXPECT_EQ(message(lines[2]), "[relay-client] recv error: ab — reconnecting");
    for (const auto& line : echo.lines()) {
        EXPECT_EQ(line.find("tok-abc"), std::string::npos) << line;
    }
}

TEST(ExtensionLogWriterTest, RotationKeepsTheNewestWholeLinesUnderTheBound) {
    constexpr std::size_t kBound = 1000;
    testing::TempDir dir;
    const auto file = dir.path() / "extension.log";
    ExtensionLogWriter log(file, fixedClock(kBound));
    std::size_t largest = 0;
    for (int i = 0; i < 400; ++i) {
        // Lines of varying length, some longer than the per-line cap.
        log.write("event " + std::to_string(i) + " " +
                  std::string(static_cast<std::size_t>(i % 7) * 45, '.'));
        const auto size = std::filesystem::file_size(file);
        largest = std::max<std::size_t>(largest, size);
        ASSERT_LE(size, kBound) << "after event " << i;
    }
    EXPECT_GT(largest, kBound / 2);
    const auto lines = linesOf(contentOf(file));
    ASSERT_FALSE(lines.empty());
    // The newest line is last, and the kept ones are consecutive and whole.
    EXPECT_EQ(message(lines.back()).rfind("event 399 ", 0), 0u) << lines.back();
    int expected = 399 - static_cast<int>(lines.size()) + 1;
    for (const auto& line : lines) {
        EXPECT_EQ(line.substr(0, 25), "2023-11-14T22:13:20.123Z ");
        EXPECT_EQ(message(line).rfind("event " + std::to_string(expected++) + " ", 0), 0u) << line;
    }
    EXPECT_FALSE(std::filesystem::exists(dir.path() / "extension.log.tmp"));
}

TEST(ExtensionLogWriterTest, AnOversizedExistingFileIsCutBeforeTheNextLine) {
    testing::TempDir dir;
    const auto file = dir.path() / "extension.log";
    {
        std::ofstream out(file);
        for (int i = 0; i < 100; ++i) {
            out << "old " << i << " " << std::string(40, '-') << "\n";
        }
    }
    ExtensionLogWriter log(file, fixedClock(2000));
    log.write("new");
    const auto text = contentOf(file);
    EXPECT_LE(text.size(), 2000u);
    const auto lines = linesOf(text);
    ASSERT_GE(lines.size(), 2u);
    EXPECT_EQ(lines[lines.size() - 2].rfind("old 99 ", 0), 0u);
    EXPECT_EQ(message(lines.back()), "new");
}

TEST(ExtensionLogWriterTest, FollowsTheFileWhenItIsRemoved) {
    testing::TempDir dir;
    const auto file = dir.path() / "extension.log";
    ExtensionLogWriter log(file, fixedClock());
    log.write("one");
    std::filesystem::remove(file);
    log.write("two");
    const auto lines = linesOf(contentOf(file));
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(message(lines[0]), "two");
}

}  // namespace
}  // namespace velmorand::extension
