#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "velmorand/platform/PeerConnection.h"

namespace velmorand {

// The signalling messages of peer-to-peer video, as they cross the relay: read from what viewers
// and the relay send, written for them. Every per-viewer message names its viewer, so that the
// relay can route it.
struct PeerSignal {
    static constexpr std::size_t kMaxViewerIdBytes = 64;
    static constexpr std::size_t kMaxCandidateBytes = 1024;
    static constexpr std::size_t kMaxMidBytes = 32;
    static constexpr std::size_t kMaxIceServers = 8;
    static constexpr std::size_t kMaxUrlsPerServer = 4;
    static constexpr std::size_t kMaxServerTextBytes = 512;

    // "webrtc_offer": the viewer wants the picture peer-to-peer.
    struct Offer {
        std::string viewerId;
        std::string sdp;
        std::vector<IceServer> iceServers;
    };
    // "webrtc_ice": one of the viewer's candidates, or the end of them.
    struct Candidate {
        std::string viewerId;
        IceCandidate candidate;
    };
    // "webrtc_close": the viewer ended its peer connection, or (from the relay) left.
    struct Close {
        std::string viewerId;
    };
    // "webrtc_relay_viewers": how many viewers still take their frames from the relay.
    struct RelayViewers {
        std::int64_t count = 0;
    };
    // A signalling message that cannot be used. An offer's viewer is told why; anything else is
    // dropped.
    struct Invalid {
        std::optional<std::string> viewerId;
        std::string reason;
        bool wasOffer = false;
    };
    using Message = std::variant<Offer, Candidate, Close, RelayViewers, Invalid>;

    // Absent for the messages the device itself sends, and for unknown types.
    static std::optional<Message> read(const nlohmann::json& message);

    static std::string answer(const std::string& viewerId, const std::string& sdp);
    static std::string candidate(const std::string& viewerId, const IceCandidate& candidate);
    // The peer connection is up: the relay stops sending this viewer frames.
    static std::string connected(const std::string& viewerId);
    // The peer connection is over, or never began: the viewer goes back to relay frames.
    static std::string error(const std::string& viewerId, const std::string& reason);
};

}  // namespace velmorand
