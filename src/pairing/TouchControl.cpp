#include <chrono>
#include <string>
#include <utility>
#include <variant>

#include "BaseUrl.h"
#include "JsonParsing.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/pairing/JsonError.h"
#include "velmorand/pairing/PairingModel.h"
#include "velmorand/platform/HttpClient.h"
#include "velmorand/platform/MainQueue.h"
#include "velmorand/platform/UrlComponents.h"

namespace velmorand {

namespace {

constexpr std::string_view kBridgePath = "/api/agent/wda";
constexpr std::chrono::milliseconds kStartTimeout{30'000};
constexpr std::chrono::milliseconds kLocalStatusTimeout{2'000};
// The Mac needs a moment to act on the queued start before a status check can tell anything.
constexpr std::chrono::seconds kFollowUpDelay{8};

bool isSuccess(int code) {
    return code >= 200 && code <= 299;
}

// The body as a JSON object, or null for a missing body, other JSON or no JSON at all.
nlohmann::json jsonObject(const std::optional<std::string>& body) {
    if (!body) {
        return nullptr;
    }
    auto value = nlohmann::json::parse(*body, nullptr, /*allow_exceptions=*/false);
    return value.is_object() ? value : nullptr;
}

std::optional<std::string> stringMember(const nlohmann::json& object, const char* key) {
    if (!object.is_object()) {
        return std::nullopt;
    }
    const auto it = object.find(key);
    if (it == object.end() || !it->is_string()) {
        return std::nullopt;
    }
    return it->get<std::string>();
}

TouchControlLine startLine(const HttpOutcome& outcome) {
    if (const auto* failure = std::get_if<HttpTransportError>(&outcome)) {
        return {"Start failed: " + failure->description, true};
    }
    const auto& response = std::get<HttpResponse>(outcome);
    const auto json = jsonObject(response.body);
    if (isSuccess(response.statusCode)) {
        return {stringMember(json, "message").value_or("Queued — WDA starts in ~30s"), false};
    }
    return {stringMember(json, "error")
                .value_or("Start refused (" + std::to_string(response.statusCode) + ")"),
            true};
}

// The line for the service's answer; none when the service says "active", which only the
// phone's own server may confirm.
std::optional<TouchControlLine> serviceStatusLine(const HttpOutcome& outcome) {
    if (const auto* failure = std::get_if<HttpTransportError>(&outcome)) {
        return TouchControlLine{"Can't reach Velmorand: " + failure->description, true};
    }
    const auto& response = std::get<HttpResponse>(outcome);
    const TouchControlLine failedCheck{
        "Status check failed (" + std::to_string(response.statusCode) + ")", true};
    if (!isSuccess(response.statusCode)) {
        return failedCheck;
    }
    nlohmann::json json;
    try {
        json = parseJson(response.body.value_or(""));
    } catch (const JsonParseError& error) {
        return TouchControlLine{"Can't reach Velmorand: " + error.description(), true};
    }
    if (!json.is_object()) {
        return failedCheck;
    }
    if (const auto it = json.find("enabled");
        it != json.end() && it->is_boolean() && !it->get<bool>()) {
        return TouchControlLine{"Touch server offline — ask Velmorand ops", true};
    }
    const auto state = stringMember(json, "wdaStatus").value_or("idle");
    const auto detail = stringMember(json, "wdaDetail");
    if (state == "active") {
        return std::nullopt;
    }
    if (state == "starting") {
        return TouchControlLine{detail.value_or("Starting touch control on Velmorand Mac…"), false};
    }
    if (state == "error") {
        return TouchControlLine{detail.value_or("Touch start failed — try again"), true};
    }
    return TouchControlLine{"Touch control: idle — tap Start (or use the dashboard)", false};
}

bool localServerReady(const HttpOutcome& outcome) {
    const auto* response = std::get_if<HttpResponse>(&outcome);
    if (!response || response->statusCode != 200) {
        return false;
    }
    const auto json = jsonObject(response->body);
    if (!json.is_object()) {
        return false;
    }
    const auto value = json.find("value");
    if (value == json.end() || !value->is_object()) {
        return false;
    }
    const auto ready = value->find("ready");
    return ready != value->end() && ready->is_boolean() && ready->get<bool>();
}

}  // namespace

std::string PairingModel::bridgeEndpoint(const std::optional<std::string>& storedAppURL) const {
    // Unlike pairing, touch control talks to the service the device was paired with.
    const std::string_view base = storedAppURL ? *storedAppURL : services_.appURL;
    return std::string(trimmingSlashes(base)) + std::string(kBridgePath);
}

void PairingModel::startWda() {
    const auto values = services_.config.load();
    if (!values.accessKey || values.accessKey->empty()) {
        setWdaStatus({"Pair this device first (access key required)", true});
        return;
    }
    auto url = bridgeEndpoint(values.appURL);
    if (!UrlComponents::parse(url)) {
        return;
    }
    setBridgeBusy(true);
    setWdaStatus({"Queuing touch control on Velmorand Mac…", false});

    std::weak_ptr<PairingModel> weakSelf = weak_from_this();
    HttpRequest request;
    request.method = "POST";
    request.url = std::move(url);
    request.headers = {{"Content-Type", "application/json"}};
    request.timeout = kStartTimeout;
    try {
        request.body = dumpJson(nlohmann::json{{"accessKey", *values.accessKey}});
    } catch (const JsonEncodeError& error) {
        // Nothing is sent, but the wait and the follow-up check still run.
        services_.mainQueue.post(
            [weakSelf, line = TouchControlLine{"Start failed: " + error.description(), true}] {
                if (const auto self = weakSelf.lock()) {
                    self->finishStart(line);
                }
            });
        return;
    }
    services_.http.send(std::move(request), [weakSelf](HttpOutcome outcome) {
        if (const auto self = weakSelf.lock()) {
            self->finishStart(startLine(outcome));
        }
    });
}

void PairingModel::finishStart(const TouchControlLine& line) {
    setWdaStatus(line);
    std::weak_ptr<PairingModel> weakSelf = weak_from_this();
    services_.mainQueue.postAfter(kFollowUpDelay, [weakSelf] {
        if (const auto self = weakSelf.lock()) {
            self->refreshWdaStatus();
            self->setBridgeBusy(false);
        }
    });
}

void PairingModel::refreshWdaStatus() {
    const auto values = services_.config.load();
    if (!values.accessKey || values.accessKey->empty()) {
        setWdaStatus(paired_ ? TouchControlLine{"Missing access key — re-pair this device", true}
                             : TouchControlLine{});
        return;
    }
    auto url = appendingQueryItem(bridgeEndpoint(values.appURL), "accessKey", *values.accessKey);
    if (!url) {
        return;
    }
    HttpRequest request;
    request.url = std::move(*url);
    std::weak_ptr<PairingModel> weakSelf = weak_from_this();
    services_.http.send(std::move(request), [weakSelf](HttpOutcome outcome) {
        const auto self = weakSelf.lock();
        if (!self) {
            return;
        }
        if (auto line = serviceStatusLine(outcome)) {
            self->setWdaStatus(std::move(*line));
        } else {
            self->checkLocalServer();
        }
    });
}

void PairingModel::checkLocalServer() {
    HttpRequest request;
    request.url = services_.wdaStatusURL;
    request.timeout = kLocalStatusTimeout;
    std::weak_ptr<PairingModel> weakSelf = weak_from_this();
    services_.http.send(std::move(request), [weakSelf](HttpOutcome outcome) {
        if (const auto self = weakSelf.lock()) {
            self->setWdaStatus(
                localServerReady(outcome)
                    ? TouchControlLine{"Touch control: active", false}
                    : TouchControlLine{"Touch control stopped — tap Start to restart", false});
        }
    });
}

}  // namespace velmorand
