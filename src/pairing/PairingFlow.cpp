#include <exception>
#include <thread>
#include <utility>

#include "velmorand/config/SharedConfig.h"
#include "velmorand/pairing/Handshake.h"
#include "velmorand/pairing/PairingModel.h"
#include "velmorand/pairing/WebRtcCapability.h"
#include "velmorand/platform/MainQueue.h"
#include "velmorand/platform/Text.h"
#include "velmorand/platform/UrlComponents.h"

namespace velmorand {

void PairingModel::pair(std::string_view accessKey) {
    auto key = trimmed(accessKey);
    if (key.empty()) {
        return;
    }
    setBusy(true);
    setStatus("Pairing…");
    // Pairing always goes to the default service; a stored base URL is not used. The region
    // counts only once saved, so the store is asked, not the picker.
    auto base = services_.appURL;
    auto region = services_.config.load().relayRegion;

    std::weak_ptr<PairingModel> weakSelf = weak_from_this();
    HttpClient& http = services_.http;
    MainQueue& mainQueue = services_.mainQueue;
    WebRtcCapability& webRtc = services_.webRtc;
    std::thread([weakSelf, &http, &mainQueue, &webRtc, base = std::move(base), key = std::move(key),
                 region = std::move(region)] {
        try {
            const bool webrtc = webRtc.isAvailable();
            auto result = Handshake::exchange(http, base, key, region, webrtc);
            mainQueue.post([weakSelf, base, key, result = std::move(result)] {
                if (const auto self = weakSelf.lock()) {
                    self->finishPairing(key, base, result);
                }
            });
        } catch (const std::exception& error) {
            // Every error type thrown here carries its user-facing description as what().
            mainQueue.post([weakSelf, description = std::string(error.what())] {
                if (const auto self = weakSelf.lock()) {
                    self->failPairing(description);
                }
            });
        }
    }).detach();
}

void PairingModel::finishPairing(const std::string& accessKey, const std::string& appURL,
                                 const HandshakeResult& result) {
    // Store and mirror first, so "Paired as" never shows ahead of the paired state.
    services_.config.save(accessKey, appURL, result);
    refresh();
    setStatus("Paired as " + result.deviceName);
    setBusy(false);
}

void PairingModel::failPairing(const std::string& description) {
    // The store is untouched: an earlier pairing survives a failed re-pairing.
    setStatus("Pairing failed: " + description);
    setBusy(false);
}

void PairingModel::handleDeepLink(std::string_view url) {
    const auto components = UrlComponents::parse(url);
    if (!components) {
        return;
    }
    // Scheme, host and path do not matter: any link carrying the key pairs.
    for (const auto& item : components->queryItems) {
        if (item.name == "key" || item.name == "accessKey") {
            if (item.value && !item.value->empty()) {
                pair(*item.value);
            }
            return;
        }
    }
}

}  // namespace velmorand
