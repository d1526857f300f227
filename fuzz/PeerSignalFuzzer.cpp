// What a viewer's peer-to-peer signalling carries before any of it reaches GStreamer: the
// message's fields, and the offer's session description.
#include <cstddef>
#include <cstdint>
#include <variant>

#include <nlohmann/json.hpp>

#include "FuzzSupport.h"
#include "velmorand/peer/PeerSignal.h"
#include "velmorand/peer/SdpOffer.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace velmorand;
    const auto text = fuzzing::asText(data, size);

    // The chosen format is one the section listed as H.264, and the offer was within bounds.
    const auto offer = SdpOffer::read(text);
    if (const auto* chosen = std::get_if<SdpOffer>(&offer)) {
        if (size > SdpOffer::kMaxBytes || chosen->payloadType < 0 || chosen->payloadType > 127) {
            __builtin_trap();
        }
    }

    const auto json = nlohmann::json::parse(text, nullptr, false);
    if (json.is_discarded()) {
        return 0;
    }
    // Whatever is kept of a message stays within its bounds.
    if (const auto message = PeerSignal::read(json)) {
        if (const auto* candidate = std::get_if<PeerSignal::Candidate>(&*message)) {
            if (candidate->viewerId.size() > PeerSignal::kMaxViewerIdBytes ||
                candidate->candidate.candidate.size() > PeerSignal::kMaxCandidateBytes ||
                candidate->candidate.sdpMid.size() > PeerSignal::kMaxMidBytes ||
                candidate->candidate.sdpMLineIndex < 0) {
                __builtin_trap();
            }
        } else if (const auto* read = std::get_if<PeerSignal::Offer>(&*message)) {
            if (read->sdp.size() > SdpOffer::kMaxBytes ||
                read->iceServers.size() > PeerSignal::kMaxIceServers) {
                __builtin_trap();
            }
        } else if (const auto* viewers = std::get_if<PeerSignal::RelayViewers>(&*message)) {
            if (viewers->count < 0) {
                __builtin_trap();
            }
        }
    }
    return 0;
}
