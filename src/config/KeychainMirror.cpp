#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "velmorand/config/SharedConfig.h"

namespace velmorand {
namespace {

using nlohmann::json;

constexpr std::string_view kProbeAccount = "velmorand.bundleSeedID";
constexpr std::string_view kMirrorService = "co.velmorand.connect.config";
constexpr std::string_view kMirrorAccount = "sharedConfig";
constexpr std::string_view kSharedGroupSuffix = "co.velmorand.shared";

void put(KeychainAttributes& attributes, std::string_view name, StoredValue value) {
    attributes.insert_or_assign(std::string(name), std::move(value));
}

// A JSON member as the platform's parser hands it over: numbers and booleans become number
// objects, strings stay strings, everything else has no stored form.
std::optional<StoredValue> storedValue(const json& member) {
    switch (member.type()) {
        case json::value_t::number_integer:
            return StoredValue{member.get<std::int64_t>()};
        case json::value_t::number_unsigned: {
            const auto number = member.get<std::uint64_t>();
            if (number <= static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
                return StoredValue{static_cast<std::int64_t>(number)};
            }
            return StoredValue{static_cast<double>(number)};
        }
        case json::value_t::number_float:
            return StoredValue{member.get<double>()};
        case json::value_t::boolean:
            return StoredValue{member.get<bool>()};
        case json::value_t::string:
            return StoredValue{member.get<std::string>()};
        default:
            return std::nullopt;
    }
}

std::optional<std::string> textMember(const json& object, const char* key) {
    const auto it = object.find(key);
    if (it == object.end() || !it->is_string()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

std::optional<StoredValue> numberMember(const json& object, const char* key) {
    const auto it = object.find(key);
    return it == object.end() ? std::nullopt : storedValue(*it);
}

}  // namespace

std::optional<std::string> SharedConfig::bundleSeedID() const {
    KeychainAttributes probe;
    put(probe, keychain::kClass, std::string(keychain::kClassGenericPassword));
    put(probe, keychain::kAccount, std::string(kProbeAccount));
    put(probe, keychain::kService, std::string());
    put(probe, keychain::kReturnAttributes, true);

    KeychainResult result;
    int status = keychain_.copyMatching(probe, &result);
    if (status == keychain::kItemNotFound) {
        status = keychain_.add(probe, &result);
    }
    if (status != keychain::kSuccess) {
        return std::nullopt;
    }
    const auto* attributes = std::get_if<KeychainAttributes>(&result);
    if (!attributes) {
        return std::nullopt;
    }
    const auto group = attributes->find(keychain::kAccessGroup);
    if (group == attributes->end()) {
        return std::nullopt;
    }
    const auto* text = std::get_if<std::string>(&group->second);
    if (!text) {
        return std::nullopt;
    }
    std::string_view rest = *text;
    while (!rest.empty()) {
        const auto dot = rest.find('.');
        const auto piece = rest.substr(0, dot);
        if (!piece.empty()) {
            return std::string(piece);
        }
        if (dot == std::string_view::npos) {
            break;
        }
        rest.remove_prefix(dot + 1);
    }
    return std::nullopt;
}

std::optional<KeychainAttributes> SharedConfig::baseKeychainQuery() const {
    const auto prefix = bundleSeedID();
    if (!prefix) {
        return std::nullopt;
    }
    KeychainAttributes query;
    put(query, keychain::kClass, std::string(keychain::kClassGenericPassword));
    put(query, keychain::kService, std::string(kMirrorService));
    put(query, keychain::kAccount, std::string(kMirrorAccount));
    put(query, keychain::kAccessGroup, *prefix + "." + std::string(kSharedGroupSuffix));
    return query;
}

std::optional<SharedConfig::Values> SharedConfig::loadKeychain() const {
    auto query = baseKeychainQuery();
    if (!query) {
        return std::nullopt;
    }
    put(*query, keychain::kReturnData, true);
    put(*query, keychain::kMatchLimit, std::string(keychain::kMatchLimitOne));

    KeychainResult result;
    if (keychain_.copyMatching(*query, &result) != keychain::kSuccess) {
        return std::nullopt;
    }
    const auto* bytes = std::get_if<Bytes>(&result);
    if (!bytes) {
        return std::nullopt;
    }
    const json object = json::parse(bytes->begin(), bytes->end(), nullptr, false);
    if (!object.is_object()) {
        return std::nullopt;
    }
    return values(object);
}

void SharedConfig::saveKeychain(const Values& values) const {
    const auto query = baseKeychainQuery();
    if (!query) {
        return;
    }
    // JSON has no spelling for NaN or infinity: such a record cannot be serialised.
    for (const auto& number : {values.quality, values.scale}) {
        if (number && !std::isfinite(*number)) {
            return;
        }
    }
    std::string text;
    try {
        text = dict(values).dump();
    } catch (const json::exception&) {
        return;  // text that is not UTF-8
    }

    keychain_.remove(*query);
    KeychainAttributes attributes = *query;
    put(attributes, keychain::kValueData, Bytes(text.begin(), text.end()));
    put(attributes, keychain::kAccessible,
        std::string(keychain::kAccessibleAfterFirstUnlockThisDeviceOnly));
    keychain_.add(attributes, nullptr);
}

json SharedConfig::dict(const Values& values) {
    json object = json::object();
    const auto text = [&](const char* key, const std::optional<std::string>& value) {
        if (value) {
            object[key] = *value;
        }
    };
    text("accessKey", values.accessKey);
    text("appURL", values.appURL);
    text("deviceToken", values.deviceToken);
    text("relayWsUrl", values.relayWsUrl);
    text("deviceId", values.deviceId);
    text("deviceName", values.deviceName);
    text("codec", values.codec);
    if (values.bitrate) {
        object["bitrate"] = *values.bitrate;
    }
    if (values.fps) {
        object["fps"] = *values.fps;
    }
    if (values.quality) {
        object["quality"] = *values.quality;
    }
    if (values.scale) {
        object["scale"] = *values.scale;
    }
    text("relayRegion", values.relayRegion);
    text("relayOverride", values.relayOverride);
    text("bridgeUrl", values.bridgeUrl);
    return object;
}

SharedConfig::Values SharedConfig::values(const json& object) {
    Values values;
    if (!object.is_object()) {
        return values;
    }
    values.accessKey = textMember(object, "accessKey");
    values.appURL = textMember(object, "appURL");
    values.deviceToken = textMember(object, "deviceToken");
    values.relayWsUrl = textMember(object, "relayWsUrl");
    values.deviceId = textMember(object, "deviceId");
    values.deviceName = textMember(object, "deviceName");
    values.codec = textMember(object, "codec");
    values.bitrate = intValue(numberMember(object, "bitrate"));
    values.fps = intValue(numberMember(object, "fps"));
    values.quality = doubleValue(numberMember(object, "quality"));
    values.scale = doubleValue(numberMember(object, "scale"));
    values.relayRegion = textMember(object, "relayRegion");
    values.relayOverride = textMember(object, "relayOverride");
    values.bridgeUrl = textMember(object, "bridgeUrl");
    return values;
}

}  // namespace velmorand
