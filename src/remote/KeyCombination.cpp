#include "velmorand/remote/KeyCombination.h"

#include <algorithm>
#include <array>
#include <string>
#include <utility>

#include "velmorand/platform/Text.h"

namespace velmorand {
namespace {

constexpr std::array<std::pair<std::string_view, NamedKey>, 4> kModifiers{{
    {"ctrl", NamedKey::control},
    {"shift", NamedKey::shift},
    {"alt", NamedKey::alt},
    {"super", NamedKey::super},
}};

constexpr std::array<std::pair<std::string_view, NamedKey>, 31> kKeys{{
    {"enter", NamedKey::enter},
    {"return", NamedKey::enter},
    {"backspace", NamedKey::backspace},
    {"delete", NamedKey::deleteKey},
    {"tab", NamedKey::tab},
    {"escape", NamedKey::escape},
    {"space", NamedKey::space},
    {"up", NamedKey::up},
    {"down", NamedKey::down},
    {"left", NamedKey::left},
    {"right", NamedKey::right},
    {"home", NamedKey::home},
    {"end", NamedKey::end},
    {"pageup", NamedKey::pageUp},
    {"pagedown", NamedKey::pageDown},
    {"f1", NamedKey::f1},
    {"f2", NamedKey::f2},
    {"f3", NamedKey::f3},
    {"f4", NamedKey::f4},
    {"f5", NamedKey::f5},
    {"f6", NamedKey::f6},
    {"f7", NamedKey::f7},
    {"f8", NamedKey::f8},
    {"f9", NamedKey::f9},
    {"f10", NamedKey::f10},
    {"f11", NamedKey::f11},
    {"f12", NamedKey::f12},
    {"ctrl", NamedKey::control},
    {"shift", NamedKey::shift},
    {"alt", NamedKey::alt},
    {"super", NamedKey::super},
}};

constexpr std::array<std::pair<std::string_view, NamedKey>, 5> kButtons{{
    {"home", NamedKey::super},
    {"volumeup", NamedKey::volumeUp},
    {"volumedown", NamedKey::volumeDown},
    {"mute", NamedKey::mute},
    {"lock", NamedKey::lock},
}};

template <std::size_t N>
std::optional<NamedKey> lookUp(const std::array<std::pair<std::string_view, NamedKey>, N>& names,
                               std::string_view name) {
    const auto found = std::find_if(names.begin(), names.end(),
                                    [name](const auto& entry) { return entry.first == name; });
    return found == names.end() ? std::nullopt : std::optional(found->second);
}

std::string lowerAscii(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return lower;
}

std::string_view withoutSpace(std::string_view text) {
    const auto first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// The last part: a named key, else exactly one character ("+" included).
std::optional<std::variant<NamedKey, char32_t>> keyPart(std::string_view part) {
    if (part.empty()) {
        return std::nullopt;
    }
    const std::string lower = lowerAscii(part);
    if (const auto named = lookUp(kKeys, lower); named) {
        return *named;
    }
    const auto characters = codePoints(lower, 1);
    if (!characters || characters->empty()) {
        return std::nullopt;
    }
    return characters->front();
}

}  // namespace

std::optional<KeyCombination> KeyCombination::parse(std::string_view name) {
    std::string_view body = withoutSpace(name);
    // The plus key itself: "+", or a combination ending in it, "ctrl++".
    std::optional<char32_t> plus;
    if (body == "+") {
        plus = U'+';
        body = {};
    } else if (body.ends_with("++")) {
        plus = U'+';
        body.remove_suffix(2);
    }
    std::vector<std::string_view> parts;
    for (std::size_t start = 0; !body.empty() && start <= body.size();) {
        const auto end = std::min(body.find('+', start), body.size());
        parts.push_back(withoutSpace(body.substr(start, end - start)));
        start = end + 1;
    }
    if (std::any_of(parts.begin(), parts.end(), [](auto part) { return part.empty(); }) ||
        (!plus && parts.empty())) {
        return std::nullopt;
    }
    KeyCombination combination;
    if (plus) {
        combination.key = *plus;
    } else {
        const auto key = keyPart(parts.back());
        if (!key) {
            return std::nullopt;
        }
        combination.key = *key;
        parts.pop_back();
    }
    for (const auto part : parts) {
        const std::string lower = lowerAscii(part);
        const auto modifier = lookUp(kModifiers, lower == "control" ? "ctrl" : lower);
        if (!modifier) {
            return std::nullopt;
        }
        combination.modifiers.push_back(*modifier);
    }
    return combination;
}

std::optional<NamedKey> deviceButton(std::string_view name) {
    return lookUp(kButtons, lowerAscii(withoutSpace(name)));
}

}  // namespace velmorand
