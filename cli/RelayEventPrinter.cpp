#include "RelayEventPrinter.h"

#include <memory>
#include <nlohmann/json.hpp>
#include <type_traits>
#include <utility>
#include <variant>

#include "velmorand/relay/RelayClient.h"

namespace velmorand::cli {
namespace {

using Json = nlohmann::ordered_json;

Json event(std::string_view name) {
    return Json{{"event", name}};
}

template <typename T>
Json orNull(const std::optional<T>& value) {
    return value ? Json(*value) : Json(nullptr);
}

Json point(const Control::Point& point) {
    return Json{{"x", point.x}, {"y", point.y}};
}

// Strings decoded from a relay frame are UTF-8 already; replacing keeps a line printable anyway.
std::string line(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

void addPayload(Json& out, const Control::Command& command) {
    std::visit(
        [&out](const auto& c) {
            using C = std::decay_t<decltype(c)>;
            if constexpr (std::is_same_v<C, Control::Swipe>) {
                out["from"] = point(c.from);
                out["to"] = point(c.to);
                out["ms"] = c.ms;
            } else if constexpr (std::is_same_v<C, Control::PushMedia>) {
                out["fileName"] = c.fileName;
                out["mime"] = c.mime;
                out["dataB64"] = c.dataB64;
            } else if constexpr (std::is_same_v<C, Control::Text> ||
                                 std::is_same_v<C, Control::SetClipboard>) {
                out["value"] = c.text;
            } else if constexpr (std::is_same_v<C, Control::Key>) {
                out["value"] = c.key;
            } else if constexpr (std::is_same_v<C, Control::Button>) {
                out["value"] = c.button;
            } else if constexpr (std::is_same_v<C, Control::OpenURL>) {
                out["value"] = c.url;
            } else if constexpr (std::is_same_v<C, Control::LaunchApp> ||
                                 std::is_same_v<C, Control::KillApp>) {
                out["value"] = c.bundleId;
            } else {
                out["x"] = c.x;
                out["y"] = c.y;
                if constexpr (std::is_same_v<C, Control::LongPress>) {
                    out["ms"] = c.ms;
                }
            }
        },
        command);
}

}  // namespace

std::string RelayEventPrinter::controlLine(const Control& control) {
    Json out = event("control");
    out["control"] = control.name();
    addPayload(out, control.command);
    return line(out);
}

void RelayEventPrinter::attach(RelayClient& client, Sink sink) {
    auto shared = std::make_shared<Sink>(std::move(sink));
    auto emit = [shared](const Json& json) { (*shared)(line(json)); };

    client.onOpen = [emit] { emit(event("open")); };
    client.onControl = [shared](const Control& control) { (*shared)(controlLine(control)); };
    client.onNeedStream = [emit](std::optional<std::string> prefer) {
        Json out = event("need_stream");
        out["prefer"] = orNull(prefer);
        emit(out);
    };
    client.onEncodeSettings = [emit](std::optional<std::int64_t> fps, std::optional<double> quality,
                                     std::optional<double> scale,
                                     std::optional<std::string> codec) {
        Json out = event("encode_settings");
        out["fps"] = orNull(fps);
        out["quality"] = orNull(quality);
        out["scale"] = orNull(scale);
        out["codec"] = orNull(codec);
        emit(out);
    };
    client.onStreamControl = [emit](bool streaming) {
        Json out = event("stream_control");
        out["streaming"] = streaming;
        emit(out);
    };
    client.onRequestIdr = [emit] { emit(event("request_idr")); };
    client.onStreamQuality = [emit](std::string tier) {
        Json out = event("stream_quality");
        out["tier"] = std::move(tier);
        emit(out);
    };
    client.onQos = [emit](std::int64_t rttMs, double lossPct, std::optional<std::string> tier,
                          std::int64_t decodeQueue, std::int64_t jitterMs) {
        Json out = event("qos");
        out["rttMs"] = rttMs;
        out["lossPct"] = lossPct;
        out["tier"] = orNull(tier);
        out["decodeQueue"] = decodeQueue;
        out["jitterMs"] = jitterMs;
        emit(out);
    };
    client.onRelayQos = [emit](double congestion) {
        Json out = event("relay_qos");
        out["congestion"] = congestion;
        emit(out);
    };
    client.onAuthRejected = [emit] { emit(event("auth_rejected")); };
    client.onWebRtcSignal = [emit](const nlohmann::json& message) {
        Json out = event("webrtc_signal");
        // Re-read in the output's own type; the message's keys keep their sorted order.
        out["message"] = Json::parse(message.dump(-1, ' ', false, Json::error_handler_t::replace));
        emit(out);
    };
}

}  // namespace velmorand::cli
