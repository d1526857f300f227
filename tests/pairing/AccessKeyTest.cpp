#include <gtest/gtest.h>

#include <string>

#include "velmorand/pairing/AccessKey.h"

namespace velmorand {
namespace {

struct KeyCase {
    const char* text;
    const char* expected;
};

class ExtractAccessKey : public ::testing::TestWithParam<KeyCase> {};

TEST_P(ExtractAccessKey, FindsTheKeyOrNothing) {
    EXPECT_EQ(extractAccessKey(GetParam().text), GetParam().expected) << GetParam().text;
}

INSTANTIATE_TEST_SUITE_P(
    BareKeys, ExtractAccessKey,
    ::testing::Values(KeyCase{"  K123 \n", "K123"}, KeyCase{"", ""}, KeyCase{" \t\n", ""},
                      // Neither "://" nor "pair?": taken whole, however link-like.
                      KeyCase{"key=abc", "key=abc"}, KeyCase{"a b&c#d", "a b&c#d"},
                      KeyCase{"HTTPS:/x?key=1", "HTTPS:/x?key=1"}));

INSTANTIATE_TEST_SUITE_P(
    Links, ExtractAccessKey,
    ::testing::Values(KeyCase{"x://h/pair?foo=1&key=a%2Bb", "a+b"},
                      KeyCase{"https://app.test/pair?accessKey=K1&key=K2", "K1"},
                      KeyCase{"https://app.test/pair?key=K2&accessKey=K1", "K2"},
                      KeyCase{"https://app.test/pair?key=%20K9%20", "K9"},
                      KeyCase{"  https://app.test/pair?key=abc\n", "abc"},
                      // A plus sign is not a space in a query item.
                      KeyCase{"x://h/pair?key=a+b", "a+b"}));

INSTANTIATE_TEST_SUITE_P(Fragments, ExtractAccessKey,
                         ::testing::Values(KeyCase{"pair?key=abc", "abc"},
                                           KeyCase{"/pair?accessKey=abc", "abc"},
                                           KeyCase{"pair?x=1&key=k%2Fz", "k/z"}));

INSTANTIATE_TEST_SUITE_P(
    PatternFallback, ExtractAccessKey,
    ::testing::Values(
        // An empty first item ends the item search; the pattern then finds the fragment's key.
        KeyCase{"x://h/pair?key=&x=1#accessKey=Z", "Z"},
        // Item names are exact, the pattern is not.
        KeyCase{"x://h/pair?KEY=abc", "abc"}, KeyCase{"x://h/pair?ACCESSKEY=abc&y=2", "abc"},
        KeyCase{"x://h/pair#key=frag", "frag"},
        // The pattern's capture is percent-decoded, or kept as is when malformed.
        KeyCase{"x://h/pair?KEY=a%2Bb", "a+b"}, KeyCase{"x://h/pair?KEY=50%zz", "50%zz"},
        KeyCase{"x://h/pair?mykey=abc", ""}, KeyCase{"x://h/pair?key=", ""},
        KeyCase{"x://h/pair?other=1", ""}, KeyCase{"x://h/pair", ""}));

}  // namespace
}  // namespace velmorand
