#pragma once

#include <string_view>

namespace velmorand {

class ClassLookup;
class Log;
class SharedConfig;

// Whether this installation can stream peer-to-peer. Reading it also clears a stale
// "load pending" marker left by a process that crashed while loading the WebRTC library, so that
// peer-to-peer is tried again.
class WebRtcCapability {
  public:
    static constexpr std::string_view kClassName = "RTCPeerConnectionFactory";
    static constexpr std::string_view kLoadPendingKey = "p2p_load_pending";

    WebRtcCapability(const ClassLookup& classLookup, const SharedConfig& config, Log& log)
        : classLookup_(classLookup), config_(config), log_(log) {}

    // Computed afresh on every call.
    bool isAvailable() const;

  private:
    const ClassLookup& classLookup_;
    const SharedConfig& config_;
    Log& log_;
};

}  // namespace velmorand
