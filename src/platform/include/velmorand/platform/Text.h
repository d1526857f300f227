#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmorand {

// `text` without the Unicode white space and line breaks (U+0085 and U+00A0 included) at its ends.
std::string trimmed(std::string_view text);

bool isValidUtf8(std::string_view bytes);

// UTF-8 `text` without what shows as nothing or acts on what shows it: format characters
// (Unicode category Cf: bidirectional overrides and isolates, zero-width spaces and joiners, soft
// hyphens), which can make a name read as something it is not; controls (Cc, C1's terminal
// escapes among them); line and paragraph separators. Bytes that are not UTF-8 are kept as they
// are.
std::string withoutInvisibleCharacters(std::string_view text);

// The code points of UTF-8 `text`; absent when it is not UTF-8 or has more than `limit` of them.
// `limit` is at most 2^28.
std::optional<std::u32string> codePoints(std::string_view text, std::size_t limit);

// The last `count` user-perceived characters (grapheme clusters) of UTF-8 `text`.
std::string lastGraphemes(std::string_view text, std::size_t count);

struct RegexMatch {
    // Index 0 is the whole match; a group that took no part in the match is absent.
    std::vector<std::optional<std::string>> groups;
};

enum class RegexCase { sensitive, insensitive };

// The first match of `pattern` in `text`. Absent when there is none or the pattern is malformed.
std::optional<RegexMatch> firstMatch(std::string_view pattern, std::string_view text,
                                     RegexCase caseMode = RegexCase::sensitive);

}  // namespace velmorand
