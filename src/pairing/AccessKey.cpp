#include "velmorand/pairing/AccessKey.h"

#include "velmorand/platform/Text.h"
#include "velmorand/platform/UrlComponents.h"

namespace velmorand {

namespace {

// Makes a link fragment such as "pair?key=K" parseable; never contacted.
constexpr std::string_view kPlaceholderBase = "https://pair.invalid/";
constexpr std::string_view kKeyPattern = R"((?:^|[?&#])(?:key|accessKey)=([^&\s#]+))";

std::optional<std::string> fromQueryItems(const std::string& link) {
    const auto components = UrlComponents::parse(link);
    if (!components) {
        return std::nullopt;
    }
    for (const auto& item : components->queryItems) {
        if (item.name != "key" && item.name != "accessKey") {
            continue;
        }
        if (!item.value) {
            return std::nullopt;
        }
        auto value = trimmed(*item.value);
        return value.empty() ? std::nullopt : std::optional(std::move(value));
    }
    return std::nullopt;
}

}  // namespace

std::string extractAccessKey(std::string_view text) {
    const auto s = trimmed(text);
    if (s.empty()) {
        return {};
    }
    const bool hasScheme = s.find("://") != std::string::npos;
    if (!hasScheme && s.find("pair?") == std::string::npos) {
        return s;
    }
    if (auto key = fromQueryItems(hasScheme ? s : std::string(kPlaceholderBase) + s)) {
        return *key;
    }
    // The query items missed it (other letter case, empty first item, key after a "#"): look
    // through the whole text instead.
    const auto match = firstMatch(kKeyPattern, s, RegexCase::insensitive);
    if (!match || match->groups.size() < 2 || !match->groups[1]) {
        return {};
    }
    const auto& captured = *match->groups[1];
    return trimmed(percentDecoded(captured).value_or(captured));
}

}  // namespace velmorand
