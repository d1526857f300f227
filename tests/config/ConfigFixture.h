#pragma once

#include <filesystem>
#include <ostream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "InMemoryConfig.h"
#include "ProvisioningProfile.h"
#include "velmorand/config/SharedConfig.h"

namespace velmorand {

// A record prints as its mirror JSON, not as bytes.
inline void PrintTo(const SharedConfig::Values& values, std::ostream* out) {
    *out << SharedConfig::dict(values).dump(-1, ' ', false,
                                            nlohmann::json::error_handler_t::replace);
}

}  // namespace velmorand

namespace velmorand::testing {

// A SharedConfig over in-memory stores; the app group is available unless a test removes the
// profile before the first use.
class ConfigFixture : public ::testing::Test, protected InMemoryConfig {
  public:
    static SharedConfig::Values paired(const std::string& key) {
        SharedConfig::Values values;
        values.accessKey = key;
        values.deviceToken = "token-" + key;
        values.relayWsUrl = "wss://relay.example/" + key;
        values.deviceName = "Phone " + key;
        return values;
    }

    // A record with every field set, so that a copy that drops one shows it.
    static SharedConfig::Values everyField(const std::string& key) {
        SharedConfig::Values values = paired(key);
        values.appURL = "https://dashboard.example";
        values.deviceId = "device-" + key;
        values.codec = "h264";
        values.bitrate = 4'000'000;
        values.fps = 30;
        values.quality = 0.5;
        values.scale = 0.75;
        values.relayRegion = "eu";
        values.relayOverride = "wss://relay-override.example";
        values.bridgeUrl = "http://127.0.0.1:8100";
        return values;
    }

  protected:
    ConfigFixture() { writeProfile(dir.path(), kEntitledProfile); }

    InMemorySettingsStore& group() { return *stores.group; }
    InMemorySettingsStore& standard() { return *stores.standardStore; }

    // The mirror item's stored text, or absent when there is no mirror.
    std::optional<std::string> mirrorText() const {
        for (const auto& item : keychain.items) {
            if (item.at(std::string(keychain::kAccount)) == StoredValue{"sharedConfig"}) {
                const auto& bytes = std::get<Bytes>(item.at(std::string(keychain::kValueData)));
                return std::string(bytes.begin(), bytes.end());
            }
        }
        return std::nullopt;
    }
};

}  // namespace velmorand::testing
