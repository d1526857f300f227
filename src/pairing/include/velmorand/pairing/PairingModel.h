#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "velmorand/config/HandshakeResult.h"

namespace velmorand {

class Bundle;
class HttpClient;
class MainQueue;
class Pasteboard;
class SharedConfig;
class WebRtcCapability;

// What the model works with. Every referenced service outlives the model and the background
// work it starts.
struct PairingServices {
    SharedConfig& config;
    HttpClient& http;
    MainQueue& mainQueue;
    WebRtcCapability& webRtc;
    Pasteboard& pasteboard;
    const Bundle& bundle;
    // The bundle identifier of the embedded broadcast upload extension, when one is found.
    std::function<std::optional<std::string>()> broadcastExtensionLookup;
    // The service's default base URL: an HTTPS origin without a trailing slash.
    std::string appURL;
    // The automation server running on the phone.
    std::string wdaStatusURL = "http://127.0.0.1:8100/status";
};

// The observable state behind the main screen. Lives on the main queue: every call, getter and
// observer notification happens there.
// One touch-control line, and whether it reports a failure (the service unreachable or
// refusing, a start that failed) rather than a state.
struct TouchControlLine {
    std::string text;
    bool failure = false;
};

class PairingModel : public std::enable_shared_from_this<PairingModel> {
    struct Token {};

  public:
    enum class Field {
        paired,
        deviceName,
        status,
        busy,
        relayRegion,
        relayOverride,
        wdaStatus,
        bridgeBusy,
        bridgeUrl,
    };
    // Called before each assignment to a field, also when the value stays the same; the getter
    // still returns the old value.
    using Observer = std::function<void(Field)>;

    static std::shared_ptr<PairingModel> create(PairingServices services);
    PairingModel(Token, PairingServices services);

    bool paired() const { return paired_; }
    const std::string& deviceName() const { return deviceName_; }
    const std::string& status() const { return status_; }
    bool busy() const { return busy_; }
    const std::string& relayRegion() const { return relayRegion_; }
    const std::string& relayOverride() const { return relayOverride_; }
    const std::string& wdaStatus() const { return wdaStatus_; }
    // Whether the touch-control line reports a failure, for callers that act on it.
    bool touchControlFailed() const { return touchControlFailed_; }
    bool bridgeBusy() const { return bridgeBusy_; }
    const std::string& bridgeUrl() const { return bridgeUrl_; }
    const std::string& appURL() const { return services_.appURL; }

    void addObserver(Observer observer);

    // Reloads the mirrored fields from the store, then re-checks touch control.
    void refresh();
    // Stores the relay region and override as they stand on screen.
    void saveRelay();
    void setRelayRegion(std::string region);
    void setRelayOverride(std::string relayOverride);
    void setStatus(std::string status);
    std::string broadcastExtensionID() const;
    // Clears the store, reloads and reports "Unpaired".
    void unpair();

    // Pairing: runs the handshake in the background, stores the result and reports in `status`.
    void pair(std::string_view accessKey);
    // Pairs with the "key" or "accessKey" query item of any opened link.
    void handleDeepLink(std::string_view url);

    // The access-key field of the screen: fills it from a scanned code and pairs, or puts the
    // pair link of the typed (else stored) key on the pasteboard.
    void applyScannedCode(std::string& keyField, std::string_view code);
    void copyPairURL(const std::string& keyField);
    std::string pairLinkPrefix() const { return services_.appURL + "/pair?key="; }

    // Touch control: asks the service to start the automation server, or reports its state.
    void startWda();
    void refreshWdaStatus();

  private:
    template <typename T>
    void assign(Field field, T& member, T value);
    void setPaired(bool value);
    void setDeviceName(std::string value);
    void setBusy(bool value);
    void setWdaStatus(TouchControlLine line);
    void setBridgeBusy(bool value);
    void setBridgeUrl(std::string value);

    void finishPairing(const std::string& accessKey, const std::string& appURL,
                       const HandshakeResult& result);
    void failPairing(const std::string& description);

    // Base URL + "/api/agent/wda" for the stored (else default) base URL.
    std::string bridgeEndpoint(const std::optional<std::string>& storedAppURL) const;
    void finishStart(const TouchControlLine& line);
    void checkLocalServer();

    PairingServices services_;
    std::vector<Observer> observers_;

    bool paired_ = false;
    std::string deviceName_;
    std::string status_;
    bool busy_ = false;
    std::string relayRegion_ = "auto";
    std::string relayOverride_;
    std::string wdaStatus_;
    bool touchControlFailed_ = false;
    bool bridgeBusy_ = false;
    std::string bridgeUrl_;
};

}  // namespace velmorand
