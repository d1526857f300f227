#pragma once

#include "velmorand/platform/ClassLookup.h"

namespace velmorand {

// The desktop's answer to the run-time class lookup: the peer-connection factory exists exactly
// when GStreamer's WebRTC plug-ins load, as its registry tells (the extension, which uses them,
// loads them itself). No other class is known.
class GstClassLookup : public ClassLookup {
  public:
    static constexpr std::string_view kPeerConnectionFactory = "RTCPeerConnectionFactory";

    bool classExists(std::string_view name) const override;
};

}  // namespace velmorand
