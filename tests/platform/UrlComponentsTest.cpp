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

// "scheme|host|path|?query|name=value,flag", the query part only when there is one.
std::string describe(const UrlComponents& url) {
    std::string text = url.scheme + "|" + url.host + "|" + url.path + "|";
    text += url.query ? "?" + *url.query + "|" : "|";
    for (const auto& [name, value] : itemsOf(url)) {
        text += name + (value ? "=" + *value : "") + ",";
    }
    return text;
}

TEST(UrlComponentsTest, ParsesParts) {
    const std::pair<const char*, const char*> cases[] = {
        {"https://h/p?a=1%202&b=x+y&flag&c=d=e&v=%C3%A9",
         "https|h|/p|?a=1%202&b=x+y&flag&c=d=e&v=%C3%A9|a=1 2,b=x+y,flag,c=d=e,v=\u00E9,"},
        {"https://h/p?n%26m=%3D#frag?x=1", "https|h|/p|?n%26m=%3D|n&m==,"},
        {"https://user@h:8080", "https|h|||"},
        {"https://h/?", "https|h|/|?|"},
        {"velmorand://pair?accessKey=abc", "velmorand|pair||?accessKey=abc|accessKey=abc,"},
        {"/pair?key=", "||/pair|?key=|key=,"},
        {"mailto:a@b?x", "mailto||a@b|?x|x,"},
        {"https://h/?a&&b", "https|h|/|?a&&b|a,,b,"},
    };
    for (const auto& [text, parts] : cases) {
        const auto parsed = UrlComponents::parse(text);
        ASSERT_TRUE(parsed) << text;
        EXPECT_EQ(describe(*parsed), parts);
    }
    for (const char* text : {"ht tp://x y", "://", "https://h/p?key=%G1", "https://h/%",
                             "https://h/p?key=a b", "https://[::1/"}) {
        EXPECT_FALSE(UrlComponents::parse(text)) << text;
    }
}

TEST(UrlComponentsTest, AppendingQueryItemEncodesForAQueryComponent) {
    const std::pair<std::string, std::string> cases[] = {
        {"https://h/api", "https://h/api?k=a%2Bb%20c%26d%3De~_.-"},
        {"https://h/api?x=1", "https://h/api?x=1&k=a%2Bb%20c%26d%3De~_.-"},
        {"https://h/api?", "https://h/api?k=a%2Bb%20c%26d%3De~_.-"},
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

TEST(UrlComponentsTest, PercentDecoded) {
    EXPECT_EQ(percentDecoded("a%20b%2Bc+d"), "a b+c+d");
    EXPECT_EQ(percentDecoded("%e2%80%94"), "\u2014");
    EXPECT_EQ(percentDecoded(""), "");
    for (const char* malformed : {"%G1", "abc%", "abc%2", "%%", "%FF"}) {
        EXPECT_FALSE(percentDecoded(malformed)) << malformed;
    }
}

}  // namespace
}  // namespace velmorand
