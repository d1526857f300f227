#include <cmath>
#include <cstdlib>

#include <nlohmann/json.hpp>

#include "velmorand/relay/Protocol.h"
#include "velmorand/relay/RelayClient.h"

namespace velmorand {
namespace {

constexpr double kTwoTo63 = 9223372036854775808.0;
// Signalling (an offer's SDP, a candidate) is small; anything larger is no signal and is not
// built into a tree, and nothing nested deeper than this is handed on, so that what the owner
// does with it (print it, copy it) never recurses without bound.
constexpr std::size_t kMaxSignalBytes = 256 * 1024;
constexpr std::size_t kMaxSignalDepth = 32;
// A viewer's id comes back in the answer to its latency probe; an id longer than any relay hands
// out (128 bytes, as escaped in the answer) would make the answer a vehicle for the viewer, and
// gets none.
constexpr std::size_t kMaxEchoedViewerIdBytes = 128;
constexpr std::string_view kViewerIdMember = R"(,"viewerId":"")";

// Reads a document without keeping any of it, and gives up past the depth limit.
class DepthCheck {
  public:
    using Json = nlohmann::json;

    bool null() { return true; }
    bool boolean(bool) { return true; }
    bool number_integer(Json::number_integer_t) { return true; }
    bool number_unsigned(Json::number_unsigned_t) { return true; }
    bool number_float(Json::number_float_t, const Json::string_t&) { return true; }
    bool string(Json::string_t&) { return true; }
    bool binary(Json::binary_t&) { return true; }
    bool key(Json::string_t&) { return true; }
    bool start_object(std::size_t) { return ++depth_ <= kMaxSignalDepth; }
    bool start_array(std::size_t) { return ++depth_ <= kMaxSignalDepth; }
    bool end_object() { return leave(); }
    bool end_array() { return leave(); }
    bool parse_error(std::size_t, const std::string&, const nlohmann::json::exception&) {
        return false;
    }

  private:
    bool leave() {
        --depth_;
        return true;
    }

    std::size_t depth_ = 0;
};

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
    if (!onWebRtcSignal || !looksLikeWebRtc(text) || text.size() > kMaxSignalBytes) {
        return false;
    }
    DepthCheck depth;
    if (!nlohmann::json::sax_parse(text, &depth)) {
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
        const std::int64_t t = m.t.value_or(0);
        const auto reply = LatencyPongMessage{t, m.viewerId}.encode();
        const auto bare = LatencyPongMessage{t, std::nullopt}.encode();
        if (reply && bare &&
            reply->size() <= bare->size() + kViewerIdMember.size() + kMaxEchoedViewerIdBytes) {
            transmit(*reply, std::nullopt);
        }
        if (onLatencyProbe) {
            onLatencyProbe(m.viewerId);
        }
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
