#include "velmorand/platform/Text.h"

#include <unicode/brkiter.h>
#include <unicode/localpointer.h>
#include <unicode/locid.h>
#include <unicode/regex.h>
#include <unicode/uchar.h>
#include <unicode/utext.h>
#include <unicode/utf8.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <memory>

namespace velmorand {
namespace {

// ICU takes int32_t lengths; longer input is treated as having no match rather than truncated.
bool fitsIcu(std::string_view text) {
    return text.size() <= static_cast<std::size_t>(std::numeric_limits<std::int32_t>::max());
}

bool isWhiteSpace(UChar32 c) {
    return c >= 0 && u_isUWhiteSpace(c);
}

// A UTF-8 UText over `text`; native indices are byte offsets into it, so match and break
// positions map straight back onto the caller's bytes.
icu::LocalUTextPointer openUtf8(std::string_view text, UErrorCode& status) {
    return icu::LocalUTextPointer(
        utext_openUTF8(nullptr, text.data(), static_cast<int64_t>(text.size()), &status));
}

}  // namespace

std::string trimmed(std::string_view text) {
    if (!fitsIcu(text)) {
        return std::string(text);
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());

    std::int32_t begin = 0;
    while (begin < length) {
        std::int32_t next = begin;
        UChar32 c = 0;
        U8_NEXT(bytes, next, length, c);
        if (!isWhiteSpace(c)) {
            break;
        }
        begin = next;
    }

    std::int32_t end = length;
    while (end > begin) {
        std::int32_t previous = end;
        UChar32 c = 0;
        U8_PREV(bytes, begin, previous, c);
        if (!isWhiteSpace(c)) {
            break;
        }
        end = previous;
    }
    return std::string(
        text.substr(static_cast<std::size_t>(begin), static_cast<std::size_t>(end - begin)));
}

std::string withoutInvisibleCharacters(std::string_view text) {
    if (!fitsIcu(text)) {
        return std::string(text);
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());
    std::string kept;
    kept.reserve(text.size());
    for (std::int32_t index = 0; index < length;) {
        const std::int32_t start = index;
        UChar32 c = 0;
        U8_NEXT(bytes, index, length, c);
        const std::int8_t type = c < 0 ? std::int8_t{U_UNASSIGNED} : u_charType(c);
        if (type != U_FORMAT_CHAR && type != U_CONTROL_CHAR && type != U_LINE_SEPARATOR &&
            type != U_PARAGRAPH_SEPARATOR) {
            kept.append(text.substr(static_cast<std::size_t>(start),
                                    static_cast<std::size_t>(index - start)));
        }
    }
    return kept;
}

std::optional<std::u32string> codePoints(std::string_view text, std::size_t limit) {
    // No code point takes more than 4 bytes: a longer text has too many, or is not UTF-8.
    if (text.size() > 4 * limit) {
        return std::nullopt;
    }
    const auto* data = reinterpret_cast<const std::uint8_t*>(text.data());
    const auto length = static_cast<std::int32_t>(text.size());
    std::u32string points;
    for (std::int32_t index = 0; index < length;) {
        UChar32 point = 0;
        U8_NEXT(data, index, length, point);
        if (point < 0 || points.size() == limit) {
            return std::nullopt;
        }
        points.push_back(static_cast<char32_t>(point));
    }
    return points;
}

bool isValidUtf8(std::string_view bytes) {
    const auto* data = reinterpret_cast<const std::uint8_t*>(bytes.data());
    // Checked in chunks because ICU's macros index with int32_t; a chunk is shortened so that it
    // never ends inside a sequence.
    std::size_t offset = 0;
    while (offset < bytes.size()) {
        std::size_t chunk = std::min<std::size_t>(bytes.size() - offset, 1u << 30);
        while (offset + chunk < bytes.size() && chunk > 0 && U8_IS_TRAIL(data[offset + chunk])) {
            --chunk;
        }
        if (chunk == 0) {
            return false;
        }
        const auto* part = data + offset;
        const auto length = static_cast<std::int32_t>(chunk);
        std::int32_t index = 0;
        while (index < length) {
            UChar32 c = 0;
            U8_NEXT(part, index, length, c);
            if (c < 0) {
                return false;
            }
        }
        offset += chunk;
    }
    return true;
}

std::string lastGraphemes(std::string_view text, std::size_t count) {
    if (count == 0 || text.empty()) {
        return {};
    }
    if (!fitsIcu(text)) {
        return std::string(text);
    }
    UErrorCode status = U_ZERO_ERROR;
    auto utext = openUtf8(text, status);
    std::unique_ptr<icu::BreakIterator> breaks(
        icu::BreakIterator::createCharacterInstance(icu::Locale::getRoot(), status));
    if (U_FAILURE(status) || !breaks) {
        return std::string(text);
    }
    breaks->setText(utext.getAlias(), status);
    if (U_FAILURE(status)) {
        return std::string(text);
    }
    std::int32_t start = breaks->last();
    for (std::size_t taken = 0; taken < count; ++taken) {
        const std::int32_t previous = breaks->previous();
        if (previous == icu::BreakIterator::DONE) {
            break;
        }
        start = previous;
    }
    return std::string(text.substr(static_cast<std::size_t>(start)));
}

std::optional<RegexMatch> firstMatch(std::string_view pattern, std::string_view text,
                                     RegexCase caseMode) {
    if (!fitsIcu(pattern) || !fitsIcu(text)) {
        return std::nullopt;
    }
    UErrorCode status = U_ZERO_ERROR;
    auto patternText = openUtf8(pattern, status);
    auto input = openUtf8(text, status);
    if (U_FAILURE(status)) {
        return std::nullopt;
    }
    const std::uint32_t flags = caseMode == RegexCase::insensitive ? UREGEX_CASE_INSENSITIVE : 0;
    UParseError parseError{};
    std::unique_ptr<icu::RegexPattern> compiled(
        icu::RegexPattern::compile(patternText.getAlias(), flags, parseError, status));
    if (U_FAILURE(status) || !compiled) {
        return std::nullopt;
    }
    std::unique_ptr<icu::RegexMatcher> matcher(compiled->matcher(status));
    if (U_FAILURE(status) || !matcher) {
        return std::nullopt;
    }
    matcher->reset(input.getAlias());
    if (!matcher->find(status) || U_FAILURE(status)) {
        return std::nullopt;
    }

    RegexMatch match;
    const std::int32_t groupCount = matcher->groupCount();
    match.groups.reserve(static_cast<std::size_t>(groupCount) + 1);
    for (std::int32_t group = 0; group <= groupCount; ++group) {
        const std::int64_t start = matcher->start64(group, status);
        const std::int64_t end = matcher->end64(group, status);
        if (U_FAILURE(status) || start < 0 || end < start) {
            match.groups.emplace_back(std::nullopt);
            status = U_ZERO_ERROR;
            continue;
        }
        match.groups.emplace_back(std::string(
            text.substr(static_cast<std::size_t>(start), static_cast<std::size_t>(end - start))));
    }
    return match;
}

}  // namespace velmorand
