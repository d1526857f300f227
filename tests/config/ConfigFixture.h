#pragma once

#include <memory>
#include <ostream>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "FakeBundle.h"
#include "InMemoryKeychain.h"
#include "InMemorySettings.h"
#include "Profiles.h"
#include "TempDir.h"
#include "velmorand/config/SharedConfig.h"

namespace velmorand {

inline void PrintTo(const SharedConfig::Values& values, std::ostream* out) {
    *out << SharedConfig::dict(values).dump(-1, ' ', false,
                                            nlohmann::json::error_handler_t::replace);
}

}  // namespace velmorand

namespace velmorand::testing {

// A SharedConfig over in-memory stores; the app group is available unless a test asks otherwise.
class ConfigFixture : public ::testing::Test {
  public:
    static SharedConfig::Values paired(const std::string& accessKey) {
        SharedConfig::Values values;
        values.accessKey = accessKey;
        values.deviceToken = "token-" + accessKey;
        values.relayWsUrl = "wss://relay.example/" + accessKey;
        values.deviceName = "Phone " + accessKey;
        return values;
    }

  protected:
    ConfigFixture() { writeEntitledProfile(entitledDir_.path()); }

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

    // The mirror item's stored bytes, or absent when there is no mirror.
    std::optional<std::string> mirrorText() const {
        for (const auto& item : keychain.items) {
            const auto account = item.find(keychain::kAccount);
            if (account != item.end() &&
                account->second == StoredValue{std::string("sharedConfig")}) {
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
