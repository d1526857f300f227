#include "velmorand/peer/PeerFanOut.h"

#include <algorithm>
#include <utility>

namespace velmorand {

void PeerFanOut::onKeyFrameWanted(std::function<void()> wanted) {
    std::lock_guard lock(mutex_);
    keyFrameWanted_ = std::move(wanted);
}

void PeerFanOut::add(const std::string& viewerId, std::shared_ptr<PeerConnection> peer) {
    remove(viewerId);
    std::lock_guard lock(mutex_);
    peers_.push_back(Peer{viewerId, std::move(peer)});
}

void PeerFanOut::remove(const std::string& viewerId) {
    std::shared_ptr<PeerConnection> removed;
    {
        std::lock_guard lock(mutex_);
        const auto it = std::find_if(peers_.begin(), peers_.end(),
                                     [&](const Peer& peer) { return peer.viewerId == viewerId; });
        if (it == peers_.end()) {
            return;
        }
        removed = std::move(it->connection);
        peers_.erase(it);
    }
    // A connection closes outside the lock: the stream's thread must not wait for it.
}

void PeerFanOut::setRelayViewers(std::optional<std::int64_t> count) {
    std::lock_guard lock(mutex_);
    relayWanted_ = !count || *count > 0;
}

bool PeerFanOut::relayFramesWanted() const {
    std::lock_guard lock(mutex_);
    return relayWanted_;
}

FrameSink::Result PeerFanOut::send(const FrameHeader& header, std::span<const std::uint8_t> payload,
                                   std::int64_t budget) {
    bool relayWanted = true;
    std::function<void()> keyFrameWanted;
    {
        std::lock_guard lock(mutex_);
        relayWanted = relayWanted_;
        bool wantKeyFrame = false;
        // A JPEG frame means the stream left H.264; its peers are being closed.
        if (header.codec == FrameCodec::h264) {
            for (Peer& peer : peers_) {
                if (peer.needsKeyFrame && !header.keyFrame) {
                    wantKeyFrame = true;
                    continue;
                }
                peer.needsKeyFrame = !peer.connection->send(payload);
                wantKeyFrame = wantKeyFrame || peer.needsKeyFrame;
            }
        }
        if (wantKeyFrame) {
            keyFrameWanted = keyFrameWanted_;
        }
    }
    if (keyFrameWanted) {
        keyFrameWanted();
    }
    return relayWanted ? relay_.send(header, payload, budget) : Result::sent;
}

std::int64_t PeerFanOut::bytesInFlight() const {
    return relay_.bytesInFlight();
}

}  // namespace velmorand
