#pragma once

#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "velmorand/config/AppGroup.h"
#include "velmorand/config/HandshakeResult.h"
#include "velmorand/platform/Keychain.h"
#include "velmorand/platform/SettingsStore.h"

#include <nlohmann/json_fwd.hpp>

namespace velmorand {

// The shared configuration: the pairing result and the stream preferences, kept in the app
// group's settings store, the standard store and a keychain mirror, and merged on every read.
// It keeps no state of its own: every call reads the stores afresh, and no call reports failure.
class SharedConfig {
  public:
    struct Values {
        std::optional<std::string> accessKey;
        std::optional<std::string> appURL;
        std::optional<std::string> deviceToken;
        std::optional<std::string> relayWsUrl;
        std::optional<std::string> deviceId;
        std::optional<std::string> deviceName;
        std::optional<std::string> codec;
        std::optional<std::int64_t> bitrate;
        std::optional<std::int64_t> fps;
        std::optional<double> quality;
        std::optional<double> scale;
        std::optional<std::string> relayRegion;
        std::optional<std::string> relayOverride;
        std::optional<std::string> bridgeUrl;

        bool isPaired() const;
        bool operator==(const Values&) const = default;
    };

    // Every settings key, in field order.
    static constexpr std::array<std::string_view, 14> kKeys = {
        "accessKey",  "appURL",      "deviceToken",   "relayWsUrl", "deviceId",
        "deviceName", "codec",       "bitrate",       "fps",        "quality",
        "scale",      "relayRegion", "relayOverride", "bridgeUrl",
    };

    struct EncodeValues {
        std::string codec = "jpeg";
        std::int64_t fps = 20;
        double quality = 0.4;
        double scale = 0.5;

        bool operator==(const EncodeValues&) const = default;
    };

    SharedConfig(SettingsStores& stores, Keychain& keychain, const AppGroup& appGroup)
        : stores_(stores), keychain_(keychain), appGroup_(appGroup) {}

    Values load() const;
    void save(const std::string& accessKey, const std::string& appURL,
              const HandshakeResult& result) const;
    void persist(const Values& values) const;
    void clear() const;

    bool appGroupAvailable() const { return appGroup_.available(); }
    // The group store when the app group is available and the suite opens; null otherwise.
    std::shared_ptr<SettingsStore> groupStore() const;
    SettingsStore& standardStore() const { return stores_.standard(); }

    static std::string normalizeCodec(const std::optional<std::string>& codec);
    static EncodeValues resolvedEncode(const Values& values);

    // Keychain mirror.
    std::optional<std::string> bundleSeedID() const;
    std::optional<KeychainAttributes> baseKeychainQuery() const;
    std::optional<Values> loadKeychain() const;
    void saveKeychain(const Values& values) const;
    static nlohmann::json dict(const Values& values);
    static Values values(const nlohmann::json& object);

    // Store helpers.
    static Values values(const SettingsStore& store);
    static void write(const Values& values, SettingsStore& store);
    static std::optional<std::int64_t> intValue(const std::optional<StoredValue>& value);
    static std::optional<double> doubleValue(const std::optional<StoredValue>& value);

  private:
    SettingsStores& stores_;
    Keychain& keychain_;
    const AppGroup& appGroup_;
};

}  // namespace velmorand
