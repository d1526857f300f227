#pragma once

#include <optional>
#include <string_view>
#include <variant>
#include <vector>

#include "velmorand/platform/InputInjector.h"

namespace velmorand {

// A key as viewers name it: "enter", "f5", "ctrl+c", "ctrl+shift+t", "alt+f4". Names ignore case
// and the space around each part; every part but the last is a modifier (ctrl, shift, alt,
// super), and the last is a named key or one character.
struct KeyCombination {
    std::vector<NamedKey> modifiers;
    std::variant<NamedKey, char32_t> key;

    static std::optional<KeyCombination> parse(std::string_view name);

    bool operator==(const KeyCombination&) const = default;
};

// The device buttons a viewer can press: "home" (the Super key), "volumeup", "volumedown",
// "mute" and "lock", ignoring case.
std::optional<NamedKey> deviceButton(std::string_view name);

}  // namespace velmorand
