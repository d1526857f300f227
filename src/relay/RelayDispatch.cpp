#include <cmath>
#include <cstdlib>

#include <nlohmann/json.hpp>

#include "velmorand/relay/Protocol.h"
#include "velmorand/relay/RelayClient.h"

namespace velmorand {
namespace {

constexpr double kTwoTo63 = 9223372036854775808.0;

// A frame rate that cannot become an integer is a bug upstream, not a viewer's mistake.
std::int64_t roundedFrameRate(double fps) {
    const double rounded = std::round(fps);
    if (!std::isfinite(rounded) || rounded < -kTwoTo63 || rounded >= kTwoTo63) {
        std::abort();
    }
    return static_cast<std::int64_t>(rounded);
}

bool looksLikeWebRtc(std::string_view text) {
    return text.find(R"("type":"webrtc_)") != std::string_view::npos ||
           text.find(R"("type": "webrtc_)") != std::string_view::npos;
}

}  // namespace

// Signalling skips the typed decoding: it goes to its owner whole, whatever its keys.
bool RelayClient::takeWebRtcSignal(std::string_view text) {
    if (!onWebRtcSignal || !looksLikeWebRtc(text)) {
        return false;
    }
    const auto document = nlohmann::json::parse(text, nullptr, false);
    if (document.is_discarded() || !document.is_object()) {
        return false;
    }
    onWebRtcSignal(document);
    return true;
}

void RelayClient::handleText(std::string_view text) {
    if (takeWebRtcSignal(text)) {
        return;
    }
    auto decoded = IncomingMessage::decode(text);
    if (!decoded) {
        return;
    }
    IncomingMessage& m = *decoded;
    const std::string_view type = m.type;

    if (type == "ping") {
        sendJSON(PongMessage{});
    } else if (type == "latency_ping") {
        sendJSON(LatencyPongMessage{m.t.value_or(0), std::move(m.viewerId)});
    } else if (type == "need_stream") {
        if (onNeedStream) {
            onNeedStream(std::move(m.prefer));
        }
    } else if (type == "encode_settings") {
        if (onEncodeSettings) {
            const auto fps = m.fps ? std::optional(roundedFrameRate(*m.fps)) : std::nullopt;
            onEncodeSettings(fps, m.quality, m.scale, std::move(m.codec));
        }
    } else if (type == "stream_control") {
        if (onStreamControl) {
            onStreamControl(m.streaming.value_or(true));
        }
    } else if (type == "request_idr") {
        if (onRequestIdr) {
            onRequestIdr();
        }
    } else if (type == "stream_quality") {
        if (onStreamQuality) {
            onStreamQuality(m.tier ? std::move(*m.tier) : std::string("auto"));
        }
    } else if (type == "qos") {
        if (onQos) {
            // Unlike "stream_quality", an empty tier counts as none here.
            auto tier = m.tier && !m.tier->empty() ? std::move(m.tier) : std::nullopt;
            onQos(m.rttMs.value_or(0), m.lossPct.value_or(0), std::move(tier),
                  m.decodeQueue.value_or(0), m.jitterMs.value_or(0));
        }
    } else if (type == "relay_qos") {
        if (onRelayQos) {
            onRelayQos(m.congestion.value_or(0));
        }
    } else if (type == "device_online" || type == "device_offline" || type == "frames_dropped" ||
               type == "error") {
        // Status notices for the dashboard; nothing to do on the device.
    } else if (onControl) {
        if (auto control = Control::from(m)) {
            onControl(*control);
        }
    }
}

}  // namespace velmorand
