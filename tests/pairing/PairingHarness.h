#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "FakeClassLookup.h"
#include "FakeHttpClient.h"
#include "InMemoryConfig.h"
#include "ManualMainQueue.h"
#include "ProvisioningProfile.h"
#include "RecordingLog.h"
#include "RecordingPasteboard.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/pairing/PairingModel.h"
#include "velmorand/pairing/WebRtcCapability.h"

namespace velmorand::testing {

inline constexpr const char* kDefaultAppURL = "https://app.velmorand.test";

// A model wired to a real SharedConfig over in-memory stores, in a bundle without a profile
// (standard store and keychain only) unless the test writes one into `dir` before the first store
// access, as the answer is read once.
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
