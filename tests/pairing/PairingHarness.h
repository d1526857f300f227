#pragma once

#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FakeClassLookup.h"
#include "FakeHttpClient.h"
#include "InMemoryConfig.h"
#include "ManualMainQueue.h"
#include "RecordingLog.h"
#include "RecordingPasteboard.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/pairing/PairingModel.h"
#include "velmorand/pairing/WebRtcCapability.h"

namespace velmorand::testing {

inline constexpr const char* kDefaultAppURL = "https://app.velmorand.test";

// Writes a provisioning profile that grants the shared app group; call before the first store
// access, as the answer is read once.
inline void grantAppGroup(const std::filesystem::path& bundleRoot) {
    std::ofstream(bundleRoot / "embedded.mobileprovision")
        << "\x30\x82signature<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
           "<plist version=\"1.0\"><dict><key>Entitlements</key><dict>"
           "<key>com.apple.security.application-groups</key><array>"
           "<string>group.co.velmorand.connect</string></array></dict></dict></plist>\x01\x02";
}

// A model wired to a real SharedConfig over in-memory stores, in a bundle without a profile
// (standard store and keychain only) unless the test grants the group first.
struct PairingHarness : InMemoryConfig {
    ManualMainQueue queue;
    FakeHttpClient http{queue};
    FakeClassLookup classes;
    RecordingLog log;
    WebRtcCapability webRtc{classes, config, log};
    RecordingPasteboard pasteboard;
    std::shared_ptr<PairingModel> model = PairingModel::create(PairingServices{
        .config = config,
        .http = http,
        .mainQueue = queue,
        .webRtc = webRtc,
        .pasteboard = pasteboard,
        .bundle = bundle,
        .broadcastExtensionLookup = [] { return std::nullopt; },
        .appURL = kDefaultAppURL,
    });

    // Loads the stored record, lets `change` edit it and persists it whole.
    void update(const std::function<void(SharedConfig::Values&)>& change) {
        auto values = config.load();
        change(values);
        config.persist(values);
    }
};

}  // namespace velmorand::testing
