#include "velmorand/pairing/Handshake.h"

#include <utility>

#include "BaseUrl.h"
#include "JsonParsing.h"
#include "velmorand/platform/HttpClient.h"
#include "velmorand/platform/Text.h"
#include "velmorand/platform/UrlComponents.h"

namespace velmorand {

namespace {

bool startsWith(std::string_view text, std::string_view prefix) {
    return text.substr(0, prefix.size()) == prefix;
}

// The platform's number-to-Bool bridge accepts exactly 0 and 1 besides true and false.
std::optional<bool> boolValue(const nlohmann::json& value) {
    if (value.is_boolean()) {
        return value.get<bool>();
    }
    if (value.is_number()) {
        const double number = value.get<double>();
        if (number == 0 || number == 1) {
            return number == 1;
        }
    }
    return std::nullopt;
}

Handshake::Result decodeResult(const std::string& body) {
    const auto json = parseJson(body);
    if (!json.is_object()) {
        throw Handshake::HandshakeError::decode();
    }
    const auto requiredString = [&](const char* key) {
        const auto it = json.find(key);
        if (it == json.end() || !it->is_string()) {
            throw Handshake::HandshakeError::decode();
        }
        return it->get<std::string>();
    };
    Handshake::Result result;
    result.deviceToken = requiredString("deviceToken");
    result.relayWsUrl = requiredString("relayWsUrl");
    result.deviceId = requiredString("deviceId");
    if (const auto it = json.find("deviceName"); it != json.end() && it->is_string()) {
        result.deviceName = it->get<std::string>();
    } else {
        result.deviceName = "iPhone";
    }
    const auto it = json.find("webrtcEnabled");
    result.webrtcEnabled = it != json.end() && boolValue(*it).value_or(false);
    return result;
}

std::string errorMessage(const std::string& text) {
    const auto json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (json.is_object()) {
        if (const auto it = json.find("error"); it != json.end() && it->is_string()) {
            return it->get<std::string>();
        }
    }
    return text;
}

}  // namespace

Handshake::HandshakeError::HandshakeError(Kind kind, std::int64_t statusCode, std::string message,
                                          const std::string& description)
    : std::runtime_error(description),
      kind_(kind),
      statusCode_(statusCode),
      message_(std::move(message)) {}

Handshake::HandshakeError Handshake::HandshakeError::http(std::int64_t statusCode,
                                                          std::string message) {
    const auto description = "Handshake " + std::to_string(statusCode) + ": " + message;
    return HandshakeError(Kind::http, statusCode, std::move(message), description);
}

Handshake::HandshakeError Handshake::HandshakeError::network(std::string message) {
    const auto description = message;
    return HandshakeError(Kind::network, 0, std::move(message), description);
}

Handshake::HandshakeError Handshake::HandshakeError::badURL() {
    return HandshakeError(Kind::badURL, 0, {}, "Invalid app URL");
}

Handshake::HandshakeError Handshake::HandshakeError::decode() {
    return HandshakeError(Kind::decode, 0, {}, "Bad handshake response");
}

std::optional<std::string> Handshake::endpoint(std::string_view appURL) {
    std::string base(trimmingSlashes(appURL));
    if (startsWith(base, "wss://")) {
        base = "https://" + base.substr(6);
    }
    if (startsWith(base, "ws://")) {
        base = "http://" + base.substr(5);
    }
    base += kPath;
    if (!UrlComponents::parse(base)) {
        return std::nullopt;
    }
    return base;
}

std::string Handshake::requestBody(std::string_view accessKey,
                                   const std::optional<std::string>& preferredRegion, bool webrtc) {
    nlohmann::json body = nlohmann::json::object();
    body["accessKey"] = std::string(accessKey);
    body["webrtc"] = webrtc;
    if (preferredRegion && !preferredRegion->empty() && *preferredRegion != "auto") {
        body["preferredRegion"] = *preferredRegion;
    }
    return dumpJson(body);
}

Handshake::Result Handshake::exchange(HttpClient& http, std::string_view appURL,
                                      std::string_view accessKey,
                                      const std::optional<std::string>& preferredRegion,
                                      bool webrtc) {
    auto url = endpoint(appURL);
    if (!url) {
        throw HandshakeError::badURL();
    }
    HttpRequest request;
    request.method = "POST";
    request.url = std::move(*url);
    request.headers = {{"Content-Type", "application/json"}};
    request.body = requestBody(accessKey, preferredRegion, webrtc);
    request.timeout = kTimeout;

    const auto outcome = http.exchange(request);
    if (const auto* failure = std::get_if<HttpTransportError>(&outcome)) {
        throw HandshakeError::network(failure->description);
    }
    const auto& response = std::get<HttpResponse>(outcome);
    const int status = response.statusCode;
    if (status >= 200 && status <= 299 && response.body) {
        return decodeResult(*response.body);
    }
    const std::string text =
        response.body && isValidUtf8(*response.body) ? *response.body : std::string();
    throw HandshakeError::http(status, errorMessage(text));
}

}  // namespace velmorand
