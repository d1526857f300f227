#include "velmorand/config/SharedConfig.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <type_traits>

#include "velmorand/platform/Text.h"

namespace velmorand {
namespace {

// The integer view of a real: truncated toward zero, and absent where no int64 holds it.
std::optional<std::int64_t> truncatedInteger(double number) {
    constexpr double kLimit = 9223372036854775808.0;  // 2^63, exact as a double
    if (!(number >= -kLimit && number < kLimit)) {
        return std::nullopt;
    }
    return static_cast<std::int64_t>(number);
}

bool nonEmpty(const std::optional<std::string>& text) {
    return text && !text->empty();
}

void writeText(SettingsStore& store, std::string_view key, const std::optional<std::string>& text) {
    if (text) {
        store.setObject(key, StoredValue{*text});
    } else {
        store.remove(key);
    }
}

// Raised to `low` first, then capped at `high`; the raise keeps `low` for a NaN.
double clamped(double number, double low, double high) {
    const double raised = number >= low ? number : low;
    return raised > high ? high : raised;
}

}  // namespace

bool SharedConfig::Values::isPaired() const {
    return nonEmpty(deviceToken) && nonEmpty(relayWsUrl);
}

std::shared_ptr<SettingsStore> SharedConfig::groupStore() const {
    if (!appGroupAvailable()) {
        return nullptr;
    }
    return stores_.suite(kAppGroupName);
}

SharedConfig::Values SharedConfig::load() const {
    const auto group = groupStore();
    if (group && (group->string("deviceToken") || group->string("accessKey"))) {
        return values(*group);
    }

    const auto mirrored = loadKeychain();
    if (mirrored && mirrored->isPaired()) {
        return *mirrored;
    }

    const Values standard = values(stores_.standard());
    if (standard.isPaired()) {
        // A mirror paired under another key is newer than the standard copy: keep it, touch
        // nothing.
        if (mirrored && mirrored->accessKey &&
            (!standard.accessKey || *standard.accessKey != *mirrored->accessKey)) {
            return *mirrored;
        }
        if (group) {
            write(standard, *group);
            group->synchronize();
        }
        saveKeychain(standard);
        return standard;
    }

    if (mirrored) {
        return *mirrored;
    }
    if (group) {
        return values(*group);
    }
    return standard;
}

void SharedConfig::save(const std::string& accessKey, const std::string& appURL,
                        const HandshakeResult& result) const {
    Values values = load();
    values.accessKey = accessKey;
    values.appURL = appURL;
    values.deviceToken = result.deviceToken;
    values.relayWsUrl = result.relayWsUrl;
    values.deviceId = result.deviceId;
    values.deviceName = result.deviceName;
    persist(values);
}

void SharedConfig::persist(const Values& values) const {
    if (const auto group = groupStore()) {
        write(values, *group);
        group->synchronize();
    }
    saveKeychain(values);
    SettingsStore& standard = stores_.standard();
    write(values, standard);
    standard.synchronize();
}

void SharedConfig::clear() const {
    const auto eraseAll = [](SettingsStore& store) {
        for (const auto key : kKeys) {
            store.remove(key);
        }
        store.synchronize();
    };
    if (const auto group = groupStore()) {
        eraseAll(*group);
    }
    eraseAll(stores_.standard());
    if (const auto query = baseKeychainQuery()) {
        keychain_.remove(*query);
    }
}

std::string SharedConfig::normalizeCodec(const std::optional<std::string>& codec) {
    std::string text = trimmed(codec ? std::string_view(*codec) : std::string_view("jpeg"));
    // ASCII folding is enough: no other character lower-cases to a letter or digit of "h264".
    std::transform(text.begin(), text.end(), text.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    return text == "h264" ? "h264" : "jpeg";
}

SharedConfig::EncodeValues SharedConfig::resolvedEncode(const Values& values) {
    EncodeValues encode;
    encode.codec = normalizeCodec(values.codec);
    if (values.fps) {
        encode.fps = std::min<std::int64_t>(std::max<std::int64_t>(*values.fps, 1), 60);
    }
    encode.quality = clamped(values.quality.value_or(0.4), 0.1, 1.0);
    encode.scale = clamped(values.scale.value_or(0.5), 0.1, 1.0);
    return encode;
}

SharedConfig::Values SharedConfig::values(const SettingsStore& store) {
    Values values;
    values.accessKey = store.string("accessKey");
    values.appURL = store.string("appURL");
    values.deviceToken = store.string("deviceToken");
    values.relayWsUrl = store.string("relayWsUrl");
    values.deviceId = store.string("deviceId");
    values.deviceName = store.string("deviceName");
    values.codec = store.string("codec");
    values.bitrate = intValue(store.object("bitrate"));
    values.fps = intValue(store.object("fps"));
    values.quality = doubleValue(store.object("quality"));
    values.scale = doubleValue(store.object("scale"));
    values.relayRegion = store.string("relayRegion");
    values.relayOverride = store.string("relayOverride");
    values.bridgeUrl = store.string("bridgeUrl");
    return values;
}

void SharedConfig::write(const Values& values, SettingsStore& store) {
    writeText(store, "accessKey", values.accessKey);
    writeText(store, "appURL", values.appURL);
    writeText(store, "deviceToken", values.deviceToken);
    writeText(store, "relayWsUrl", values.relayWsUrl);
    writeText(store, "deviceId", values.deviceId);
    writeText(store, "deviceName", values.deviceName);
    writeText(store, "codec", values.codec);
    // An absent number never erases one stored earlier.
    if (values.bitrate) {
        store.setInteger("bitrate", *values.bitrate);
    }
    if (values.fps) {
        store.setInteger("fps", *values.fps);
    }
    if (values.quality) {
        store.setDouble("quality", *values.quality);
    }
    if (values.scale) {
        store.setDouble("scale", *values.scale);
    }
    writeText(store, "relayRegion", values.relayRegion);
    writeText(store, "relayOverride", values.relayOverride);
    writeText(store, "bridgeUrl", values.bridgeUrl);
}

std::optional<std::int64_t> SharedConfig::intValue(const std::optional<StoredValue>& value) {
    if (!value) {
        return std::nullopt;
    }
    return std::visit(
        [](const auto& stored) -> std::optional<std::int64_t> {
            using T = std::decay_t<decltype(stored)>;
            if constexpr (std::is_same_v<T, std::int64_t>) {
                return stored;
            } else if constexpr (std::is_same_v<T, bool>) {
                return stored ? 1 : 0;
            } else if constexpr (std::is_same_v<T, double>) {
                return truncatedInteger(stored);
            } else {
                return std::nullopt;
            }
        },
        *value);
}

std::optional<double> SharedConfig::doubleValue(const std::optional<StoredValue>& value) {
    if (!value) {
        return std::nullopt;
    }
    return std::visit(
        [](const auto& stored) -> std::optional<double> {
            using T = std::decay_t<decltype(stored)>;
            if constexpr (std::is_same_v<T, std::int64_t>) {
                return static_cast<double>(stored);
            } else if constexpr (std::is_same_v<T, bool>) {
                return stored ? 1.0 : 0.0;
            } else if constexpr (std::is_same_v<T, double>) {
                return stored;
            } else {
                return std::nullopt;
            }
        },
        *value);
}

}  // namespace velmorand
