#include "velmorand/platform/Text.h"

#include <gtest/gtest.h>

namespace velmorand {
namespace {

TEST(TextTest, TrimmedRemovesUnicodeWhiteSpaceAtBothEnds) {
    const std::pair<std::string, std::string> cases[] = {
        {"\r\n\v key\f\t", "key"},
        {"\u00A0\u0085key\u3000", "key"},
        {"\u2028key\u2029", "key"},
        {" a b\u00A0c ", "a b\u00A0c"},
        {" \t\u00A0\u3000\n", ""},
        {"", ""},
        {"\u200Bkey\u200B", "\u200Bkey\u200B"},  // zero-width space is no white space
        {" a\xFF"
         "b ",
         "a\xFF"
         "b"},
        {"\xC3 key \xFF", "\xC3 key \xFF"},  // an invalid byte at an end stops trimming
    };
    for (const auto& [input, expected] : cases) {
        EXPECT_EQ(trimmed(input), expected) << input;
    }
}

TEST(TextTest, IsValidUtf8) {
    using namespace std::string_literals;
    for (const auto& valid : {""s, "caf\u00E9 \U0001F600"s, "a\0b"s}) {
        EXPECT_TRUE(isValidUtf8(valid)) << valid;
    }
    // Stray, truncated, overlong, surrogate, beyond U+10FFFF.
    for (const char* invalid : {"\xFF", "\xC3", "\xC0\xAF", "\xED\xA0\x80", "\xF4\x90\x80\x80"}) {
        EXPECT_FALSE(isValidUtf8(invalid)) << invalid;
    }
}

TEST(TextTest, LastGraphemesCountsUserPerceivedCharacters) {
    const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467";
    const std::string flag = "\U0001F1EB\U0001F1F7";
    EXPECT_EQ(lastGraphemes("abcdef", 3), "def");
    EXPECT_EQ(lastGraphemes("abc", 10), "abc");
    EXPECT_EQ(lastGraphemes("abc", 0), "");
    EXPECT_EQ(lastGraphemes("xe\u0301", 1), "e\u0301");
    EXPECT_EQ(lastGraphemes("x" + family + flag, 2), family + flag);
    EXPECT_EQ(lastGraphemes("line\r\n", 1), "\r\n");
}

TEST(TextTest, FirstMatchGroups) {
    const auto match = firstMatch("(?:^|[?&#])(?:key|accessKey)=([^&\\s#]+)",
                                  "x?ACCESSKEY=abc&key=def", RegexCase::insensitive);
    ASSERT_TRUE(match);
    EXPECT_EQ(match->groups, (std::vector<std::optional<std::string>>{"?ACCESSKEY=abc", "abc"}));
    EXPECT_FALSE(firstMatch("accessKey=(\\w+)", "ACCESSKEY=abc"));
    // A group that took no part is absent; one that matched nothing is empty.
    const auto optional = firstMatch("(a)(b)?(c)(d*)", "ac");
    ASSERT_TRUE(optional);
    EXPECT_EQ(optional->groups,
              (std::vector<std::optional<std::string>>{"ac", "a", std::nullopt, "c", ""}));
    const auto unicode = firstMatch("\u00E9(.)", "caf\u00C9\U0001F600!", RegexCase::insensitive);
    ASSERT_TRUE(unicode);
    EXPECT_EQ(unicode->groups[1], "\U0001F600");
    for (const char* pattern : {"z", "(unclosed", "[a-"}) {
        EXPECT_FALSE(firstMatch(pattern, "abc unclosed a")) << pattern;
    }
}

}  // namespace
}  // namespace velmorand
