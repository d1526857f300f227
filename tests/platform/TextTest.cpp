#include "velmorand/platform/Text.h"

#include <gtest/gtest.h>

namespace velmorand {
namespace {

struct TrimCase {
    const char* label;
    std::string input;
    std::string expected;
};

TEST(TextTest, TrimmedRemovesUnicodeWhiteSpaceAtBothEnds) {
    const TrimCase cases[] = {
        {"ascii", "  key \t", "key"},
        {"line breaks", "\r\n\vkey\f\n", "key"},
        {"no-break space", "\u00A0key\u00A0", "key"},
        {"next line", "\u0085key\u0085", "key"},
        {"ideographic space", "\u3000key\u3000", "key"},
        {"line and paragraph separators", "\u2028key\u2029", "key"},
        {"inner space kept", " a b\u00A0c ", "a b\u00A0c"},
        {"all space", " \t\u00A0\u3000\n", ""},
        {"empty", "", ""},
        {"zero-width space is not white space", "\u200Bkey\u200B", "\u200Bkey\u200B"},
        {"invalid byte inside kept",
         " a\xFF"
         "b ",
         "a\xFF"
         "b"},
        {"invalid byte at an end stops trimming", "\xC3 key \xFF", "\xC3 key \xFF"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(trimmed(c.input), c.expected) << c.label;
    }
}

TEST(TextTest, IsValidUtf8) {
    EXPECT_TRUE(isValidUtf8(""));
    EXPECT_TRUE(isValidUtf8("plain"));
    EXPECT_TRUE(isValidUtf8("caf\u00E9 \U0001F600"));
    EXPECT_TRUE(isValidUtf8(std::string("a\0b", 3)));
    EXPECT_FALSE(isValidUtf8("\xFF"));
    EXPECT_FALSE(isValidUtf8("\xC3"));              // truncated
    EXPECT_FALSE(isValidUtf8("\xC0\xAF"));          // overlong
    EXPECT_FALSE(isValidUtf8("\xED\xA0\x80"));      // surrogate
    EXPECT_FALSE(isValidUtf8("\xF4\x90\x80\x80"));  // beyond U+10FFFF
}

TEST(TextTest, LastGraphemesCountsUserPerceivedCharacters) {
    const std::string family = "\U0001F468\u200D\U0001F469\u200D\U0001F467";
    const std::string flag = "\U0001F1EB\U0001F1F7";
    const std::string eAcute = "e\u0301";
    EXPECT_EQ(lastGraphemes("abcdef", 3), "def");
    EXPECT_EQ(lastGraphemes("abc", 10), "abc");
    EXPECT_EQ(lastGraphemes("abc", 0), "");
    EXPECT_EQ(lastGraphemes("", 2), "");
    EXPECT_EQ(lastGraphemes("x" + eAcute, 1), eAcute);
    EXPECT_EQ(lastGraphemes("x" + family, 1), family);
    EXPECT_EQ(lastGraphemes("x" + family + flag, 2), family + flag);
    EXPECT_EQ(lastGraphemes("line\r\n", 1), "\r\n");
}

TEST(TextTest, FirstMatchGroups) {
    const auto match = firstMatch("(?:^|[?&#])(?:key|accessKey)=([^&\\s#]+)",
                                  "x?ACCESSKEY=abc&key=def", RegexCase::insensitive);
    ASSERT_TRUE(match);
    ASSERT_EQ(match->groups.size(), 2u);
    EXPECT_EQ(match->groups[0], "?ACCESSKEY=abc");
    EXPECT_EQ(match->groups[1], "abc");

    EXPECT_FALSE(firstMatch("accessKey=(\\w+)", "ACCESSKEY=abc"));

    const auto optional = firstMatch("(a)(b)?(c)", "ac");
    ASSERT_TRUE(optional);
    ASSERT_EQ(optional->groups.size(), 4u);
    EXPECT_EQ(optional->groups[1], "a");
    EXPECT_EQ(optional->groups[2], std::nullopt);
    EXPECT_EQ(optional->groups[3], "c");

    const auto empty = firstMatch("x(y*)", "x");
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->groups[1], "");  // took part, matched nothing

    const auto unicode = firstMatch("\u00E9(.)", "caf\u00C9\U0001F600!", RegexCase::insensitive);
    ASSERT_TRUE(unicode);
    EXPECT_EQ(unicode->groups[1], "\U0001F600");

    EXPECT_FALSE(firstMatch("z", "abc"));
    EXPECT_FALSE(firstMatch("(unclosed", "unclosed"));
    EXPECT_FALSE(firstMatch("[a-", "a"));
}

}  // namespace
}  // namespace velmorand
