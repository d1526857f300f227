#include <gtest/gtest.h>

#include "velmorand/pairing/AccessKey.h"

namespace velmorand {
namespace {

TEST(ExtractAccessKey, FindsTheKeyOrNothing) {
    const std::pair<const char*, const char*> cases[] = {
        // Neither "://" nor "pair?": a bare key, taken whole however link-like.
        {"  K123 \n", "K123"},
        // Query items: the first named exactly key or accessKey, decoded and trimmed.
        {"x://h/pair?foo=1&key=a%2Bb", "a+b"},
        {"https://app.test/pair?accessKey=K1&key=K2", "K1"},
        {"https://app.test/pair?key=%20K9%20", "K9"},
        // An empty first item ends the item search; the case-blind pattern then looks at the
        // whole text and percent-decodes its capture, or keeps it when malformed.
        {"x://h/pair?key=&x=1#accessKey=Z", "Z"},
        {"x://h/pair#key=frag", "frag"},
        {"x://h/pair?KEY=a%2Bb", "a+b"},
        {"x://h/pair?KEY=50%zz", "50%zz"},
        {"x://h/pair?mykey=abc", ""},
        {"x://h/pair?key=", ""},
    };
    for (const auto& [text, expected] : cases) {
        EXPECT_EQ(extractAccessKey(text), expected) << text;
    }
}

}  // namespace
}  // namespace velmorand
