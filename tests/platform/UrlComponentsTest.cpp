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
