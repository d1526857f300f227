#include "velmorand/platform/Text.h"
#include "velmorand/platform/UrlComponents.h"

#include <gtest/gtest.h>

namespace velmorand {
namespace {

TEST(TextTest, TrimmedRemovesUnicodeWhiteSpaceAtBothEnds) {
    const std::pair<std::string, std::string> cases[] = {
        {"\r\n\v key\f\t", "key"},
        {"\u00A0\u0085key\u3000", "key"},
        {" \t\u00A0\u3000\n", ""},
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
    // A view that ends inside white space: nothing past its end is read.
    EXPECT_EQ(trimmed(std::string_view("      ").substr(0, 3)), "");
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

TEST(TextTest, LastGraphemesCountsWhatAPersonSeesAsOneCharacter) {
    const struct {
        const char* text;
        std::size_t count;
        const char* expected;
    } cases[] = {
        {"", 3, ""},
        {"abc", 0, ""},
        {"abc", 2, "bc"},
        {"abc", 5, "abc"},
        // A letter and its combining accent; a thumb and its skin tone.
        {"e\u0301e\u0301", 1, "e\u0301"},
        {"x\U0001F44D\U0001F3FD", 1, "\U0001F44D\U0001F3FD"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(lastGraphemes(c.text, c.count), c.expected) << c.text << " " << c.count;
    }
}

TEST(TextTest, WithoutInvisibleCharactersKeepsOnlyWhatShows) {
    using namespace std::string_literals;
    const std::pair<std::string, std::string> cases[] = {
        {"a\0b"s, "ab"},                       // NUL, a control
        {"\x1B[31mred\u0085", "[31mred"},      // terminal escapes, C0 and C1
        {"evil\u202Etxt.exe", "eviltxt.exe"},  // a bidirectional override
        {"a\u200Bb\u00ADc", "abc"},            // zero-width space, soft hyphen
        {"line\u2028next\u2029", "linenext"},  // line and paragraph separators
        {"caf\u00E9 \xFF", "caf\u00E9 \xFF"},  // shown, and bytes that are not UTF-8
    };
    for (const auto& [input, expected] : cases) {
        EXPECT_EQ(withoutInvisibleCharacters(input), expected) << input;
    }
}

TEST(TextTest, FirstMatchGivesEveryGroupTheLastToo) {
    using Groups = std::vector<std::optional<std::string>>;
    const struct {
        const char* pattern;
        const char* text;
        RegexCase caseMode;
        std::optional<Groups> expected;
    } cases[] = {
        {"(a)(x)?(c)", "zacac", RegexCase::sensitive, Groups{"ac", "a", std::nullopt, "c"}},
        {"key=(\\w+)", "KEY=Ab&key=cd", RegexCase::insensitive, Groups{"KEY=Ab", "Ab"}},
        {"key=(\\w+)", "KEY=Ab&key=cd", RegexCase::sensitive, Groups{"key=cd", "cd"}},
        {"b", "aaa", RegexCase::sensitive, std::nullopt},
        {"(", "(", RegexCase::sensitive, std::nullopt},  // malformed
    };
    for (const auto& c : cases) {
        const auto match = firstMatch(c.pattern, c.text, c.caseMode);
        ASSERT_EQ(match.has_value(), c.expected.has_value()) << c.pattern << " " << c.text;
        if (match) {
            EXPECT_EQ(match->groups, *c.expected) << c.pattern << " " << c.text;
        }
    }
}

using Items = std::vector<std::pair<std::string, std::optional<std::string>>>;

Items itemsOf(const UrlComponents& components) {
    Items items;
    for (const auto& item : components.queryItems) {
        items.emplace_back(item.name, item.value);
    }
    return items;
}

TEST(UrlComponentsTest, UrlsAreShownWithoutWhatMayBeSecret) {
    const std::pair<std::string, std::string> rows[] = {
        {"https://user:pw@example.org:8443/a/b?token=x#frag", "https://example.org:8443/a/b"},
        {"wss://[::1]:9000/relay", "wss://[::1]:9000/relay"},
        {"mailto:someone@example.org?subject=x", "mailto:someone@example.org"},
        {"HTTP://Example.org", "HTTP://Example.org"},
        {"no scheme at all", "(not a URL)"},
        {"/relative/path?q", "(not a URL)"},
    };
    for (const auto& [url, shown] : rows) {
        EXPECT_EQ(urlWithoutSecrets(url), shown) << url;
    }
    const auto parts = UrlComponents::parse("ws://me:secret@localhost:81/x");
    ASSERT_TRUE(parts);
    EXPECT_EQ(parts->userInfo, "me:secret");
    EXPECT_EQ(parts->port, "81");
}

TEST(UrlComponentsTest, AppendingQueryItemEncodesForAQueryComponent) {
    const std::pair<std::string, std::string> cases[] = {
        {"https://h/api", "https://h/api?k=a%2Bb%20c%26d%3De~_.-"},
        {"https://h/api?x=1", "https://h/api?x=1&k=a%2Bb%20c%26d%3De~_.-"},
        {"https://h/api#top", "https://h/api?k=a%2Bb%20c%26d%3De~_.-#top"},
    };
    for (const auto& [url, expected] : cases) {
        EXPECT_EQ(appendingQueryItem(url, "k", "a+b c&d=e~_.-"), expected) << url;
    }
    EXPECT_EQ(appendingQueryItem("https://h/", "k\u00E9y", "/?"), "https://h/?k%C3%A9y=%2F%3F");
    EXPECT_FALSE(appendingQueryItem("ht tp://bad", "a", "b"));
    const auto roundTrip = UrlComponents::parse(*appendingQueryItem("https://h/x", "a&b", "1+1 %"));
    ASSERT_TRUE(roundTrip);
    EXPECT_EQ(itemsOf(*roundTrip), (Items{{"a&b", "1+1 %"}}));
}

// Pair links and answers arrive escaped by whatever wrote them, in either case.
TEST(UrlComponentsTest, EscapesDecodeInEitherCaseAndMalformedOnesAreRefused) {
    const std::pair<std::string_view, std::optional<std::string>> cases[] = {
        {"", ""},
        {"a+b", "a+b"},
        {"%3A%2F%3a%2f", ":/:/"},
        {"caf%C3%A9", "caf\u00E9"},
        {"caf%c3%a9", "caf\u00E9"},
        {"%Aa", std::nullopt},  // a byte that is not UTF-8 on its own
        {"100%", std::nullopt},
        {"%4", std::nullopt},
        {"%g1", std::nullopt},
        {"%1g", std::nullopt},
    };
    for (const auto& [text, decoded] : cases) {
        EXPECT_EQ(percentDecoded(text), decoded) << text;
    }
}

}  // namespace
}  // namespace velmorand
