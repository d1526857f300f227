#include "velmorand/peer/PeerSignal.h"

#include <algorithm>

#include <nlohmann/json.hpp>

#include "velmorand/peer/SdpOffer.h"

namespace velmorand {
namespace {

using Json = nlohmann::json;

std::optional<std::string> text(const Json& message, const char* key, std::size_t maxBytes) {
    const auto it = message.find(key);
    if (it == message.end() || !it->is_string()) {
        return std::nullopt;
    }
    const auto& value = it->get_ref<const std::string&>();
    return value.size() <= maxBytes ? std::optional(value) : std::nullopt;
}

// Printable ASCII, so that it can be logged and compared as it stands.
std::optional<std::string> viewerId(const Json& message) {
    auto id = text(message, "viewerId", PeerSignal::kMaxViewerIdBytes);
    if (!id || id->empty() ||
        !std::all_of(id->begin(), id->end(), [](char c) { return c >= 0x20 && c <= 0x7E; })) {
        return std::nullopt;
    }
    return id;
}

// A browser's RTCIceServer: "urls" is one URL or a list of them.
std::optional<IceServer> iceServer(const Json& entry) {
    if (!entry.is_object()) {
        return std::nullopt;
    }
    IceServer server;
    const auto urls = entry.find("urls");
    if (urls == entry.end()) {
        return std::nullopt;
    }
    const Json list = urls->is_array() ? *urls : Json::array({*urls});
    if (list.empty() || list.size() > PeerSignal::kMaxUrlsPerServer) {
        return std::nullopt;
    }
    for (const auto& url : list) {
        if (!url.is_string() ||
            url.get_ref<const std::string&>().size() > PeerSignal::kMaxServerTextBytes) {
            return std::nullopt;
        }
        server.urls.push_back(url.get<std::string>());
    }
    for (auto [key, field] :
         {std::pair{"username", &server.username}, std::pair{"credential", &server.credential}}) {
        if (entry.contains(key)) {
            auto value = text(entry, key, PeerSignal::kMaxServerTextBytes);
            if (!value) {
                return std::nullopt;
            }
            *field = std::move(*value);
        }
    }
    return server;
}

PeerSignal::Message readOffer(const Json& message, std::string id) {
    const auto sdp = message.find("sdp");
    if (sdp == message.end() || !sdp->is_string()) {
        return PeerSignal::Invalid{id, "the offer has no session description", true};
    }
    if (sdp->get_ref<const std::string&>().size() > SdpOffer::kMaxBytes) {
        return PeerSignal::Invalid{id, "the offer is larger than 64 KiB", true};
    }
    PeerSignal::Offer offer{id, sdp->get<std::string>(), {}};
    if (const auto servers = message.find("iceServers");
        servers != message.end() && !servers->is_null()) {
        if (!servers->is_array() || servers->size() > PeerSignal::kMaxIceServers) {
            return PeerSignal::Invalid{id, "the offer's iceServers are not a list of up to 8",
                                       true};
        }
        for (const auto& entry : *servers) {
            auto server = iceServer(entry);
            if (!server) {
                return PeerSignal::Invalid{id, "the offer names an ICE server it cannot use", true};
            }
            offer.iceServers.push_back(std::move(*server));
        }
    }
    return offer;
}

PeerSignal::Message readCandidate(const Json& message, std::string id) {
    const auto line = text(message, "candidate", PeerSignal::kMaxCandidateBytes);
    if (!line) {
        return PeerSignal::Invalid{id, "a candidate that is not text of up to 1 KiB", false};
    }
    IceCandidate candidate{*line, "", 0};
    if (const auto mid = message.find("sdpMid"); mid != message.end() && !mid->is_null()) {
        auto value = text(message, "sdpMid", PeerSignal::kMaxMidBytes);
        if (!value) {
            return PeerSignal::Invalid{id, "a candidate with an unusable sdpMid", false};
        }
        candidate.sdpMid = std::move(*value);
    }
    if (const auto index = message.find("sdpMLineIndex");
        index != message.end() && !index->is_null()) {
        if (!index->is_number_integer() || index->get<std::int64_t>() < 0 ||
            index->get<std::int64_t>() > 63) {
            return PeerSignal::Invalid{id, "a candidate with an unusable sdpMLineIndex", false};
        }
        candidate.sdpMLineIndex = index->get<int>();
    }
    return PeerSignal::Candidate{std::move(id), std::move(candidate)};
}

std::string written(Json message) {
    return message.dump(-1, ' ', false, Json::error_handler_t::replace);
}

}  // namespace

std::optional<PeerSignal::Message> PeerSignal::read(const Json& message) {
    const auto typeField = message.find("type");
    if (!message.is_object() || typeField == message.end() || !typeField->is_string()) {
        return std::nullopt;
    }
    const auto& type = typeField->get_ref<const std::string&>();
    if (type == "webrtc_relay_viewers") {
        // Only the relay speaks of its viewers; one that names a viewer came from a viewer.
        if (message.contains("viewerId")) {
            return std::nullopt;
        }
        const auto count = message.find("count");
        if (count == message.end() || !count->is_number_integer() ||
            (!count->is_number_unsigned() && count->get<std::int64_t>() < 0)) {
            return Invalid{std::nullopt, "a relay viewer count that is not a count", false};
        }
        return RelayViewers{static_cast<std::int64_t>(
            std::min<std::uint64_t>(count->get<std::uint64_t>(), INT64_MAX))};
    }
    const bool isOffer = type == "webrtc_offer";
    if (!isOffer && type != "webrtc_ice" && type != "webrtc_close") {
        return std::nullopt;
    }
    auto id = viewerId(message);
    if (!id) {
        return Invalid{std::nullopt, "a " + type + " without a usable viewerId", isOffer};
    }
    if (isOffer) {
        return readOffer(message, std::move(*id));
    }
    if (type == "webrtc_ice") {
        return readCandidate(message, std::move(*id));
    }
    return Close{std::move(*id)};
}

std::string PeerSignal::answer(const std::string& viewerId, const std::string& sdp) {
    return written({{"type", "webrtc_answer"}, {"viewerId", viewerId}, {"sdp", sdp}});
}

std::string PeerSignal::candidate(const std::string& viewerId, const IceCandidate& candidate) {
    return written({{"type", "webrtc_ice"},
                    {"viewerId", viewerId},
                    {"candidate", candidate.candidate},
                    {"sdpMid", candidate.sdpMid},
                    {"sdpMLineIndex", candidate.sdpMLineIndex}});
}

std::string PeerSignal::connected(const std::string& viewerId) {
    return written({{"type", "webrtc_connected"}, {"viewerId", viewerId}});
}

std::string PeerSignal::error(const std::string& viewerId, const std::string& reason) {
    return written({{"type", "webrtc_error"}, {"viewerId", viewerId}, {"reason", reason}});
}

}  // namespace velmorand
