#pragma once

#include <plist/plist.h>

#include <cstdint>
#include <cstdlib>
#include <limits>
#include <optional>
#include <span>
#include <string>
#include <type_traits>
#include <utility>
#include <variant>

#include "velmorand/platform/StoredValue.h"

namespace velmorand::plist {

// Owns one root plist_t node; nodes reached through it stay owned by the root.
class PlistHandle {
  public:
    PlistHandle() = default;
    explicit PlistHandle(plist_t node) : node_(node) {}
    ~PlistHandle() { reset(); }
    PlistHandle(PlistHandle&& other) noexcept : node_(std::exchange(other.node_, nullptr)) {}
    PlistHandle& operator=(PlistHandle&& other) noexcept {
        if (this != &other) {
            reset(std::exchange(other.node_, nullptr));
        }
        return *this;
    }
    PlistHandle(const PlistHandle&) = delete;
    PlistHandle& operator=(const PlistHandle&) = delete;

    plist_t get() const { return node_; }
    plist_t release() { return std::exchange(node_, nullptr); }
    void reset(plist_t node = nullptr) {
        if (node_ != nullptr) {
            plist_free(node_);
        }
        node_ = node;
    }
    explicit operator bool() const { return node_ != nullptr; }

    static PlistHandle dictionary() { return PlistHandle(plist_new_dict()); }
    static PlistHandle array() { return PlistHandle(plist_new_array()); }

    // XML or binary; an empty handle when `bytes` is neither.
    static PlistHandle parse(std::span<const std::uint8_t> bytes) {
        if (bytes.empty() || bytes.size() > std::numeric_limits<std::uint32_t>::max()) {
            return {};
        }
        plist_t node = nullptr;
        plist_from_memory(reinterpret_cast<const char*>(bytes.data()),
                          static_cast<std::uint32_t>(bytes.size()), &node);
        PlistHandle handle(node);
        // libplist asserts on, and overruns when writing, a string holding a NUL: such a list is
        // taken as unreadable.
        if (handle && hasStringWithNul(handle.get())) {
            return {};
        }
        return handle;
    }

    std::optional<std::string> toXml() const {
        if (node_ == nullptr) {
            return std::nullopt;
        }
        char* xml = nullptr;
        std::uint32_t length = 0;
        plist_to_xml(node_, &xml, &length);
        if (xml == nullptr) {
            return std::nullopt;
        }
        std::string text(xml, length);
        plist_to_xml_free(xml);
        return text;
    }

  private:
    static bool hasStringWithNul(plist_t node) {
        switch (plist_get_node_type(node)) {
            case PLIST_STRING: {
                std::uint64_t length = 0;
                const char* text = plist_get_string_ptr(node, &length);
                return text != nullptr && std::char_traits<char>::length(text) != length;
            }
            case PLIST_ARRAY: {
                const auto size = plist_array_get_size(node);
                for (std::uint32_t index = 0; index < size; ++index) {
                    if (hasStringWithNul(plist_array_get_item(node, index))) {
                        return true;
                    }
                }
                return false;
            }
            case PLIST_DICT: {
                plist_dict_iter iterator = nullptr;
                plist_dict_new_iter(node, &iterator);
                bool found = false;
                while (!found) {
                    plist_t value = nullptr;
                    plist_dict_next_item(node, iterator, nullptr, &value);
                    if (value == nullptr) {
                        break;
                    }
                    found = hasStringWithNul(value);
                }
                free(iterator);
                return found;
            }
            default:
                return false;
        }
    }

    plist_t node_ = nullptr;
};

inline bool isType(plist_t node, plist_type type) {
    return node != nullptr && plist_get_node_type(node) == type;
}

inline std::optional<std::string> stringValue(plist_t node) {
    if (!isType(node, PLIST_STRING)) {
        return std::nullopt;
    }
    // Not plist_get_string_val: it asserts on a string holding a NUL, which a damaged file can.
    std::uint64_t length = 0;
    const char* text = plist_get_string_ptr(node, &length);
    if (text == nullptr) {
        return std::nullopt;
    }
    return std::string(text, static_cast<std::size_t>(length));
}

// Scalars as the stores keep them; other node types have no StoredValue.
inline std::optional<StoredValue> storedValue(plist_t node) {
    if (node == nullptr) {
        return std::nullopt;
    }
    switch (plist_get_node_type(node)) {
        case PLIST_STRING:
            if (auto text = stringValue(node)) {
                return StoredValue{std::move(*text)};
            }
            return std::nullopt;
        case PLIST_UINT: {
            std::uint64_t value = 0;
            plist_get_uint_val(node, &value);
            // Integers are kept as 64 bits; negative ones come back as their two's complement.
            return StoredValue{static_cast<std::int64_t>(value)};
        }
        case PLIST_REAL: {
            double value = 0;
            plist_get_real_val(node, &value);
            return StoredValue{value};
        }
        case PLIST_BOOLEAN: {
            std::uint8_t value = 0;
            plist_get_bool_val(node, &value);
            return StoredValue{value != 0};
        }
        case PLIST_DATA: {
            char* data = nullptr;
            std::uint64_t length = 0;
            plist_get_data_val(node, &data, &length);
            Bytes bytes(reinterpret_cast<const std::uint8_t*>(data),
                        reinterpret_cast<const std::uint8_t*>(data) + length);
            free(data);
            return StoredValue{std::move(bytes)};
        }
        default:
            return std::nullopt;
    }
}

// A new node the caller owns (hand it to a container, which takes it over).
inline plist_t newNode(const StoredValue& value) {
    return std::visit(
        [](const auto& stored) -> plist_t {
            using T = std::decay_t<decltype(stored)>;
            if constexpr (std::is_same_v<T, std::string>) {
                return plist_new_string(stored.c_str());
            } else if constexpr (std::is_same_v<T, std::int64_t>) {
                return plist_new_uint(static_cast<std::uint64_t>(stored));
            } else if constexpr (std::is_same_v<T, double>) {
                return plist_new_real(stored);
            } else if constexpr (std::is_same_v<T, bool>) {
                return plist_new_bool(stored ? 1 : 0);
            } else {
                return plist_new_data(reinterpret_cast<const char*>(stored.data()), stored.size());
            }
        },
        value);
}

}  // namespace velmorand::plist
