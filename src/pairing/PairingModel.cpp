#include "velmorand/pairing/PairingModel.h"

#include <utility>

#include "velmorand/config/SharedConfig.h"
#include "velmorand/pairing/AccessKey.h"
#include "velmorand/platform/Bundle.h"
#include "velmorand/platform/Pasteboard.h"
#include "velmorand/platform/Text.h"

namespace velmorand {

std::shared_ptr<PairingModel> PairingModel::create(PairingServices services) {
    return std::make_shared<PairingModel>(Token{}, std::move(services));
}

PairingModel::PairingModel(Token, PairingServices services) : services_(std::move(services)) {}

void PairingModel::addObserver(Observer observer) {
    observers_.push_back(std::move(observer));
}

template <typename T>
void PairingModel::assign(Field field, T& member, T value) {
    // By index: an observer may add another observer while being told.
    for (std::size_t i = 0; i < observers_.size(); ++i) {
        auto observer = observers_[i];
        observer(field);
    }
    member = std::move(value);
}

void PairingModel::setPaired(bool value) {
    assign(Field::paired, paired_, value);
}
void PairingModel::setDeviceName(std::string value) {
    assign(Field::deviceName, deviceName_, std::move(value));
}
void PairingModel::setStatus(std::string value) {
    assign(Field::status, status_, std::move(value));
}
void PairingModel::setBusy(bool value) {
    assign(Field::busy, busy_, value);
}
void PairingModel::setRelayRegion(std::string value) {
    assign(Field::relayRegion, relayRegion_, std::move(value));
}
void PairingModel::setRelayOverride(std::string value) {
    assign(Field::relayOverride, relayOverride_, std::move(value));
}
void PairingModel::setWdaStatus(TouchControlLine line) {
    // Set first, so that observers of the line see whether it is a failure.
    touchControlFailed_ = line.failure;
    assign(Field::wdaStatus, wdaStatus_, std::move(line.text));
}
void PairingModel::setBridgeBusy(bool value) {
    assign(Field::bridgeBusy, bridgeBusy_, value);
}
void PairingModel::setBridgeUrl(std::string value) {
    assign(Field::bridgeUrl, bridgeUrl_, std::move(value));
}

void PairingModel::refresh() {
    const auto values = services_.config.load();
    setPaired(values.isPaired());
    setDeviceName(values.deviceName.value_or(""));
    setRelayRegion(values.relayRegion.value_or("auto"));
    setRelayOverride(values.relayOverride.value_or(""));
    // Only ever replaced by a known URL, so a store that lost it does not blank the field.
    if (values.bridgeUrl && !values.bridgeUrl->empty()) {
        setBridgeUrl(*values.bridgeUrl);
    }
    refreshWdaStatus();
}

void PairingModel::saveRelay() {
    // Stored as typed: the relay connection at the next broadcast start is what judges it.
    const auto region = relayRegion_;
    const auto relayOverride = trimmed(relayOverride_);
    auto values = services_.config.load();
    values.relayRegion = region;
    values.relayOverride = relayOverride;
    services_.config.persist(values);
    setStatus("Relay preference saved — applies on next broadcast start.");
}

std::string PairingModel::broadcastExtensionID() const {
    if (services_.broadcastExtensionLookup) {
        if (auto identifier = services_.broadcastExtensionLookup()) {
            return *identifier;
        }
    }
    return services_.bundle.bundleIdentifier().value_or("co.velmorand.connect") + ".broadcast";
}

void PairingModel::unpair() {
    services_.config.clear();
    refresh();
    setStatus("Unpaired");
}

void PairingModel::applyScannedCode(std::string& keyField, std::string_view code) {
    auto key = extractAccessKey(code);
    if (key.empty()) {
        setStatus("QR had no pair key.");
        return;
    }
    keyField = key;
    pair(key);
}

void PairingModel::copyPairURL(const std::string& keyField) {
    const auto typed = trimmed(keyField);
    const auto stored = trimmed(services_.config.load().accessKey.value_or(""));
    // The typed key wins, even over the key this device is paired with.
    const auto& key = typed.empty() ? stored : typed;
    if (key.empty()) {
        setStatus("Paste an access key first.");
        return;
    }
    services_.pasteboard.setString(pairLinkPrefix() + key);
    setStatus("Copied pair URL.");
}

}  // namespace velmorand
