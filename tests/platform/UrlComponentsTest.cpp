#include "velmorand/platform/UrlComponents.h"

#include <gtest/gtest.h>

namespace velmorand {
namespace {

using Items = std::vector<std::pair<std::string, std::optional<std::string>>>;

Items itemsOf(const UrlComponents& components) {
    Items items;
    for (const auto& item : components.queryItems) {
        items.emplace_back(item.name, item.value);
    }
    return items;
}

struct ParseCase {
    std::string text;
    std::string scheme;
    std::string host;
    std::string path;
    std::optional<std::string> query;
    Items items;
};

TEST(UrlComponentsTest, ParsesParts) {
    const ParseCase cases[] = {
        {"https://app.example.co/pair?key=K1",
         "https",
         "app.example.co",
         "/pair",
         "key=K1",
         {{"key", "K1"}}},
        {"https://h/p?a=1%202&b=x+y&flag&c=d=e",
         "https",
         "h",
         "/p",
         "a=1%202&b=x+y&flag&c=d=e",
         {{"a", "1 2"}, {"b", "x+y"}, {"flag", std::nullopt}, {"c", "d=e"}}},
        {"https://h/p?n%26m=%3D#frag?x=1", "https", "h", "/p", "n%26m=%3D", {{"n&m", "="}}},
        {"https://h", "https", "h", "", std::nullopt, {}},
        {"https://h/?", "https", "h", "/", "", {}},
        {"https://user@h:8080/a/b/", "https", "h", "/a/b/", std::nullopt, {}},
        {"velmorand://pair?accessKey=abc",
         "velmorand",
         "pair",
         "",
         "accessKey=abc",
         {{"accessKey", "abc"}}},
        {"/pair?key=", "", "", "/pair", "key=", {{"key", ""}}},
        {"mailto:a@b?x", "mailto", "", "a@b", "x", {{"x", std::nullopt}}},
        {"https://h/?a&&b",
         "https",
         "h",
         "/",
         "a&&b",
         {{"a", std::nullopt}, {"", std::nullopt}, {"b", std::nullopt}}},
        {"https://h/?v=%C3%A9", "https", "h", "/", "v=%C3%A9", {{"v", "\u00E9"}}},
    };
    for (const auto& c : cases) {
        const auto parsed = UrlComponents::parse(c.text);
        ASSERT_TRUE(parsed) << c.text;
        EXPECT_EQ(parsed->scheme, c.scheme) << c.text;
        EXPECT_EQ(parsed->host, c.host) << c.text;
        EXPECT_EQ(parsed->path, c.path) << c.text;
        EXPECT_EQ(parsed->query, c.query) << c.text;
        EXPECT_EQ(itemsOf(*parsed), c.items) << c.text;
    }
}

TEST(UrlComponentsTest, RejectsTextThatIsNoUriReference) {
    for (const char* text : {"ht tp://x y", "://", "https://h/p?key=%G1", "https://h/%",
                             "https://h/p?key=a b", "https://[::1/"}) {
        EXPECT_FALSE(UrlComponents::parse(text)) << text;
    }
}

TEST(UrlComponentsTest, AppendingQueryItemEncodesForAQueryComponent) {
    const std::pair<std::string, std::string> cases[] = {
        {"https://h/api", "https://h/api?accessKey=a%2Bb%20c%26d%3De~_.-"},
        {"https://h/api?x=1", "https://h/api?x=1&accessKey=a%2Bb%20c%26d%3De~_.-"},
        {"https://h/api?", "https://h/api?accessKey=a%2Bb%20c%26d%3De~_.-"},
        {"https://h/api#top", "https://h/api?accessKey=a%2Bb%20c%26d%3De~_.-#top"},
    };
    for (const auto& [url, expected] : cases) {
        EXPECT_EQ(appendingQueryItem(url, "accessKey", "a+b c&d=e~_.-"), expected) << url;
    }
    EXPECT_EQ(appendingQueryItem("https://h/", "k\u00E9y", "/?"), "https://h/?k%C3%A9y=%2F%3F");
    EXPECT_FALSE(appendingQueryItem("ht tp://bad", "a", "b"));

    const auto roundTrip =
        UrlComponents::parse(*appendingQueryItem("https://h/x", "a&b", "1+1=2 %"));
    ASSERT_TRUE(roundTrip);
    EXPECT_EQ(itemsOf(*roundTrip), (Items{{"a&b", "1+1=2 %"}}));
}

TEST(UrlComponentsTest, PercentDecoded) {
    EXPECT_EQ(percentDecoded("a%20b%2Bc+d"), "a b+c+d");
    EXPECT_EQ(percentDecoded("%e2%80%94"), "\u2014");
    EXPECT_EQ(percentDecoded(""), "");
    EXPECT_EQ(percentDecoded("plain"), "plain");
    for (const char* malformed : {"%G1", "abc%", "abc%2", "%%", "%FF"}) {
        EXPECT_FALSE(percentDecoded(malformed)) << malformed;
    }
}

}  // namespace
}  // namespace velmorand
