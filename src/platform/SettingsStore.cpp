#include "velmorand/platform/SettingsStore.h"

#include <charconv>
#include <type_traits>

namespace velmorand {
namespace {

template <typename Number>
std::string decimalText(Number number) {
    char buffer[32];
    const auto end = std::to_chars(buffer, buffer + sizeof buffer, number).ptr;
    return std::string(buffer, end);
}

bool isTrueText(const std::string& text) {
    if (text == "true" || text == "TRUE" || text == "True" || text == "yes" || text == "YES" ||
        text == "Yes") {
        return true;
    }
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    return error == std::errc{} && end == text.data() + text.size() && number != 0;
}

}  // namespace

std::optional<std::string> SettingsStore::string(std::string_view key) const {
    const auto value = object(key);
    if (!value) {
        return std::nullopt;
    }
    return std::visit(
        [](const auto& stored) -> std::optional<std::string> {
            using T = std::decay_t<decltype(stored)>;
            if constexpr (std::is_same_v<T, std::string>) {
                return stored;
            } else if constexpr (std::is_same_v<T, bool>) {
                return stored ? "1" : "0";
            } else if constexpr (std::is_same_v<T, std::int64_t> || std::is_same_v<T, double>) {
                return decimalText(stored);
            } else {
                return std::nullopt;
            }
        },
        *value);
}

bool SettingsStore::boolean(std::string_view key) const {
    const auto value = object(key);
    if (!value) {
        return false;
    }
    return std::visit(
        [](const auto& stored) -> bool {
            using T = std::decay_t<decltype(stored)>;
            if constexpr (std::is_same_v<T, std::string>) {
                return isTrueText(stored);
            } else if constexpr (std::is_same_v<T, Bytes>) {
                return false;
            } else {
                return stored != 0;
            }
        },
        *value);
}

}  // namespace velmorand
