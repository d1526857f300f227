#pragma once

#include <filesystem>
#include <fstream>
#include <memory>
#include <ostream>
#include <string>
#include <string_view>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "FakeBundle.h"
#include "InMemoryKeychain.h"
#include "InMemorySettings.h"
#include "TempDir.h"
#include "velmorand/config/SharedConfig.h"

namespace velmorand {

// A record prints as its mirror JSON, not as bytes.
inline void PrintTo(const SharedConfig::Values& values, std::ostream* out) {
    *out << SharedConfig::dict(values).dump(-1, ' ', false,
                                            nlohmann::json::error_handler_t::replace);
}

}  // namespace velmorand

namespace velmorand::testing {

// The XML payload of a provisioning profile whose group list is `groups`, a property-list value.
inline std::string profilePlist(std::string_view groups) {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<!DOCTYPE plist PUBLIC \"-//Apple//DTD "
           "PLIST 1.0//EN\" \"http://www.apple.com/DTDs/PropertyList-1.0.dtd\">\n<plist "
           "version=\"1.0\"><dict><key>Entitlements</key><dict><key>application-identifier</key>"
           "<string>TEAM123.co.velmorand.connect</string><key>com.apple.security.application-"
           "groups</key>" +
           std::string(groups) + "</dict></dict></plist>";
}

// Bytes shaped like a signature container around its payload: NULs, high bytes and partial
// markers on both sides.
inline std::string signedContainer(std::string_view payload) {
    using namespace std::string_literals;
    return "\x30\x80\x06\x09\x2a\x86\x48\xf7\x0d\x01\x07\x02\xa0\x80\x00\xff<?"s +
           std::string(payload) + "\x00\xa0\x82\x0f\x3e\xff\xfe</plist"s;
}

inline void writeProfile(const std::filesystem::path& directory, std::string_view bytes) {
    std::ofstream(directory / "embedded.mobileprovision", std::ios::binary) << bytes;
}

inline const std::string kEntitledProfile =
    signedContainer(profilePlist("<array><string>group.co.velmorand.connect</string></array>"));

// A SharedConfig over in-memory stores; the app group is available unless a test asks otherwise.
class ConfigFixture : public ::testing::Test {
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
    ConfigFixture() { writeProfile(entitledDir_.path(), kEntitledProfile); }

    SharedConfig& config(bool groupAvailable = true) {
        if (!config_) {
            bundle_ = std::make_unique<FakeBundle>(groupAvailable ? entitledDir_.path()
                                                                  : emptyDir_.path());
            appGroup_ = std::make_unique<AppGroup>(*bundle_);
            config_ = std::make_unique<SharedConfig>(stores, keychain, *appGroup_);
        }
        return *config_;
    }

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

    InMemorySettingsStores stores;
    InMemoryKeychain keychain;

  private:
    TempDir entitledDir_;
    TempDir emptyDir_;
    std::unique_ptr<FakeBundle> bundle_;
    std::unique_ptr<AppGroup> appGroup_;
    std::unique_ptr<SharedConfig> config_;
};

}  // namespace velmorand::testing
