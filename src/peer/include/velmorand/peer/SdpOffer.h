#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <variant>

namespace velmorand {

// What the device needs of a viewer's offer: which of its H.264 formats to send, and how the
// video section is named in candidates.
struct SdpOffer {
    // Larger offers are refused unread.
    static constexpr std::size_t kMaxBytes = 64 * 1024;

    // The first packetization-mode 1, constrained-baseline H.264 format of the first video
    // section that asks to receive, in the offer's order of preference.
    int payloadType = 0;
    // The section's "a=mid", empty when it has none.
    std::string videoMid;
    int videoMLineIndex = 0;

    bool operator==(const SdpOffer&) const = default;

    // The offer, or why the device cannot answer it, said for the viewer.
    static std::variant<SdpOffer, std::string> read(std::string_view sdp);
};

}  // namespace velmorand
