#include "velmorand/platform/PropertyList.h"

#include <ctime>
#include <nlohmann/json.hpp>

#include "PlistHandle.h"

namespace velmorand {
namespace {

// Property-list dates count seconds from 2001-01-01T00:00:00Z.
constexpr std::int64_t kReferenceDateUnixSeconds = 978307200;

std::string isoDate(std::int32_t seconds) {
    const auto unixSeconds = static_cast<std::time_t>(kReferenceDateUnixSeconds + seconds);
    std::tm utc{};
    gmtime_r(&unixSeconds, &utc);
    char buffer[32];
    const auto length = std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%SZ", &utc);
    return std::string(buffer, length);
}

nlohmann::json toJson(plist_t node) {
    switch (plist_get_node_type(node)) {
        case PLIST_DICT: {
            auto object = nlohmann::json::object();
            plist_dict_iter iterator = nullptr;
            plist_dict_new_iter(node, &iterator);
            while (true) {
                char* key = nullptr;
                plist_t value = nullptr;
                plist_dict_next_item(node, iterator, &key, &value);
                if (value == nullptr) {
                    free(key);
                    break;
                }
                object[key != nullptr ? key : ""] = toJson(value);
                free(key);
            }
            free(iterator);
            return object;
        }
        case PLIST_ARRAY: {
            auto array = nlohmann::json::array();
            const auto size = plist_array_get_size(node);
            for (std::uint32_t index = 0; index < size; ++index) {
                array.push_back(toJson(plist_array_get_item(node, index)));
            }
            return array;
        }
        case PLIST_STRING:
            return plist::stringValue(node).value_or("");
        case PLIST_KEY: {
            char* text = nullptr;
            plist_get_key_val(node, &text);
            std::string value = text != nullptr ? text : "";
            free(text);
            return value;
        }
        case PLIST_UINT: {
            std::uint64_t value = 0;
            plist_get_uint_val(node, &value);
            return static_cast<std::int64_t>(value);
        }
        case PLIST_UID: {
            std::uint64_t value = 0;
            plist_get_uid_val(node, &value);
            return value;
        }
        case PLIST_REAL: {
            double value = 0;
            plist_get_real_val(node, &value);
            return value;
        }
        case PLIST_BOOLEAN: {
            std::uint8_t value = 0;
            plist_get_bool_val(node, &value);
            return value != 0;
        }
        case PLIST_DATA: {
            char* data = nullptr;
            std::uint64_t length = 0;
            plist_get_data_val(node, &data, &length);
            std::vector<std::uint8_t> bytes(reinterpret_cast<const std::uint8_t*>(data),
                                            reinterpret_cast<const std::uint8_t*>(data) + length);
            free(data);
            return nlohmann::json::binary(std::move(bytes));
        }
        case PLIST_DATE: {
            std::int32_t seconds = 0;
            std::int32_t microseconds = 0;
            plist_get_date_val(node, &seconds, &microseconds);
            return isoDate(seconds);
        }
        default:
            return nullptr;
    }
}

}  // namespace

bool parsePropertyList(std::span<const std::uint8_t> bytes, nlohmann::json& out) {
    const auto root = plist::PlistHandle::parse(bytes);
    if (!root) {
        return false;
    }
    out = toJson(root.get());
    return true;
}

}  // namespace velmorand
