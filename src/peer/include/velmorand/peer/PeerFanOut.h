#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "velmorand/platform/PeerConnection.h"
#include "velmorand/stream/ScreenStream.h"

namespace velmorand {

// Where the stream's frames go when some viewers take them peer-to-peer: every connected peer
// gets the same H.264 access units as the relay, and the relay gets none while no viewer takes
// its frames. A peer that dropped a unit, like one that has just joined, gets nothing until a
// key frame, which it asks for.
class PeerFanOut : public FrameSink {
  public:
    explicit PeerFanOut(FrameSink& relay) : relay_(relay) {}

    // Called on the stream's thread when a peer needs a key frame; set before the stream opens.
    void onKeyFrameWanted(std::function<void()> wanted);
    // Main thread. A peer replaces any other of the same viewer.
    void add(const std::string& viewerId, std::shared_ptr<PeerConnection> peer);
    void remove(const std::string& viewerId);
    // Whether the relay has viewers that take its frames; absent when the relay has not said,
    // which counts as yes.
    void setRelayViewers(std::optional<std::int64_t> count);
    bool relayFramesWanted() const;

    Result send(const FrameHeader& header, std::span<const std::uint8_t> payload,
                std::int64_t budget) override;
    std::int64_t bytesInFlight() const override;

  private:
    struct Peer {
        std::string viewerId;
        std::shared_ptr<PeerConnection> connection;
        bool needsKeyFrame = true;
    };

    FrameSink& relay_;
    mutable std::mutex mutex_;
    std::vector<Peer> peers_;
    bool relayWanted_ = true;
    std::function<void()> keyFrameWanted_;
};

}  // namespace velmorand
