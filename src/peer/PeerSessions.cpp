#include "velmorand/peer/PeerSessions.h"

#include <utility>
#include <variant>

#include <nlohmann/json.hpp>

#include "velmorand/peer/SdpOffer.h"

namespace velmorand {
namespace {

const std::string kSilentViewer = "the viewer stopped answering for 20 s";

std::string viewer(const std::string& viewerId) {
    return "webrtc: viewer " + viewerId;
}

}  // namespace

PeerSessions::PeerSessions(Services services) : services_(std::move(services)) {
    services_.fanOut.onKeyFrameWanted(
        [&mainQueue = services_.mainQueue, self = std::weak_ptr<PeerSessions*>(self_)] {
            mainQueue.post([self] {
                if (const auto alive = self.lock()) {
                    (*alive)->keyFrameWanted();
                }
            });
        });
}

PeerSessions::~PeerSessions() {
    services_.fanOut.onKeyFrameWanted(nullptr);
    closeAll(std::nullopt);
}

void PeerSessions::handle(const nlohmann::json& message) {
    auto read = PeerSignal::read(message);
    if (!read) {
        return;
    }
    std::visit(
        [this](auto&& signal) {
            using Signal = std::decay_t<decltype(signal)>;
            if constexpr (std::is_same_v<Signal, PeerSignal::Offer>) {
                offer(std::move(signal));
            } else if constexpr (std::is_same_v<Signal, PeerSignal::Candidate>) {
                candidate(signal);
            } else if constexpr (std::is_same_v<Signal, PeerSignal::Close>) {
                if (sessions_.contains(signal.viewerId)) {
                    services_.log.write(viewer(signal.viewerId) + " closed its peer connection");
                    end(signal.viewerId, std::nullopt);
                }
            } else if constexpr (std::is_same_v<Signal, PeerSignal::RelayViewers>) {
                relayViewers(signal.count);
            } else if (signal.wasOffer && signal.viewerId && withinOfferBudget(*signal.viewerId)) {
                refuse(*signal.viewerId, signal.reason);
            }
        },
        std::move(*read));
}

std::optional<std::string> PeerSessions::refusal(const std::string& viewerId) {
    if (!services_.makePeer) {
        return "this device cannot stream peer-to-peer";
    }
    if (!services_.streamIsH264()) {
        return "peer-to-peer needs the H.264 stream, and this broadcast streams JPEG";
    }
    if (!sessions_.contains(viewerId) && sessions_.size() >= kMaxPeers) {
        return "the device already streams peer-to-peer to 4 viewers";
    }
    return std::nullopt;
}

bool PeerSessions::withinOfferBudget(const std::string& viewerId) {
    if (offersInWindow_ == 0) {
        offerWindow_ = services_.mainQueue.postAfter(kOfferWindow,
                                                     [self = std::weak_ptr<PeerSessions*>(self_)] {
                                                         if (const auto alive = self.lock()) {
                                                             (*alive)->offersInWindow_ = 0;
                                                         }
                                                     });
    }
    if (offersInWindow_++ < kMaxOffersPerWindow) {
        return true;
    }
    // Each one is told; the log hears of the flood once a window, so that it keeps the rest.
    const std::string reason = "too many offers at once; try again in a few seconds";
    if (offersInWindow_ == kMaxOffersPerWindow + 1) {
        services_.log.write(viewer(viewerId) + ": " + reason + " (more are not logged)");
    }
    services_.signal(PeerSignal::error(viewerId, reason));
    return false;
}

void PeerSessions::offer(PeerSignal::Offer offer) {
    if (!withinOfferBudget(offer.viewerId)) {
        return;
    }
    if (auto reason = refusal(offer.viewerId)) {
        refuse(offer.viewerId, *reason);
        return;
    }
    auto sdp = SdpOffer::read(offer.sdp);
    if (auto* reason = std::get_if<std::string>(&sdp)) {
        refuse(offer.viewerId, *reason);
        return;
    }
    const auto& chosen = std::get<SdpOffer>(sdp);
    // A new offer from the same viewer starts over: the old connection is of no use to it.
    end(offer.viewerId, std::nullopt);
    const std::uint64_t generation = nextGeneration_++;
    auto made = services_.makePeer(PeerConnection::Setup{std::move(offer.sdp), chosen.payloadType,
                                                         std::move(offer.iceServers)},
                                   events(offer.viewerId, generation));
    if (auto* reason = std::get_if<std::string>(&made)) {
        refuse(offer.viewerId, "the device could not start a peer connection: " + *reason);
        return;
    }
    Session& session = sessions_[offer.viewerId];
    session.generation = generation;
    session.peer = std::move(std::get<std::unique_ptr<PeerConnection>>(made));
    session.videoMid = chosen.videoMid;
    endAfter(offer.viewerId, session, kConnectTimeout, "no peer-to-peer connection within 15 s");
    services_.log.write(viewer(offer.viewerId) + " offered; answering with H.264 payload type " +
                        std::to_string(chosen.payloadType));
}

void PeerSessions::candidate(const PeerSignal::Candidate& candidate) {
    const auto it = sessions_.find(candidate.viewerId);
    if (it == sessions_.end()) {
        return;
    }
    Session& session = it->second;
    if (++session.candidates > kMaxCandidates) {
        if (session.candidates == kMaxCandidates + 1) {
            services_.log.write(viewer(candidate.viewerId) +
                                " sent more than 64 candidates; the rest are dropped");
        }
        return;
    }
    if (session.answered) {
        session.peer->addCandidate(candidate.candidate);
    } else {
        session.early.push_back(candidate.candidate);
    }
}

void PeerSessions::relayViewers(std::int64_t count) {
    const bool wanted = services_.fanOut.relayFramesWanted();
    services_.fanOut.setRelayViewers(count);
    if (wanted == (count > 0)) {
        return;
    }
    if (count > 0) {
        services_.log.write("webrtc: a viewer takes relay frames again; sending them");
        // The relay's viewers have nothing to decode until a key frame.
        keyFrameWanted();
    } else {
        services_.log.write("webrtc: every viewer is peer-to-peer; no frames go to the relay");
    }
}

void PeerSessions::relayLost() {
    services_.fanOut.setRelayViewers(std::nullopt);
}

PeerConnection::Events PeerSessions::events(const std::string& viewerId, std::uint64_t generation) {
    return {
        .onAnswer =
            [this, viewerId, generation](std::string answer) {
                later(viewerId, generation, [this, viewerId, answer](Session& session) {
                    session.answered = true;
                    services_.signal(PeerSignal::answer(viewerId, answer));
                    for (const auto& early : std::exchange(session.early, {})) {
                        session.peer->addCandidate(early);
                    }
                });
            },
        .onCandidate =
            [this, viewerId, generation](IceCandidate candidate) {
                later(viewerId, generation, [this, viewerId, candidate](Session& session) mutable {
                    if (candidate.sdpMid.empty()) {
                        candidate.sdpMid = session.videoMid;
                    }
                    services_.signal(PeerSignal::candidate(viewerId, candidate));
                });
            },
        .onConnected =
            [this, viewerId, generation] {
                later(viewerId, generation,
                      [this, viewerId](Session& session) { connected(viewerId, session); });
            },
        .onFailed =
            [this, viewerId, generation](std::string reason) {
                later(viewerId, generation,
                      [this, viewerId, reason](Session&) { end(viewerId, reason); });
            },
        .onKeyFrameWanted =
            [this, viewerId, generation] {
                later(viewerId, generation, [this](Session&) { keyFrameWanted(); });
            },
        .onHeard =
            [this, viewerId, generation] {
                later(viewerId, generation, [this, viewerId](Session& session) {
                    if (session.connected) {
                        endAfter(viewerId, session, kSilenceLimit, kSilentViewer);
                    }
                });
            },
    };
}

void PeerSessions::later(const std::string& viewerId, std::uint64_t generation,
                         std::function<void(Session&)> act) {
    services_.mainQueue.post(
        [self = std::weak_ptr<PeerSessions*>(self_), viewerId, generation, act = std::move(act)] {
            const auto alive = self.lock();
            if (!alive) {
                return;
            }
            const auto it = (*alive)->sessions_.find(viewerId);
            if (it != (*alive)->sessions_.end() && it->second.generation == generation) {
                act(it->second);
            }
        });
}

void PeerSessions::connected(const std::string& viewerId, Session& session) {
    if (std::exchange(session.connected, true)) {
        return;
    }
    endAfter(viewerId, session, kSilenceLimit, kSilentViewer);
    services_.fanOut.add(viewerId, session.peer);
    services_.signal(PeerSignal::connected(viewerId));
    services_.log.write(viewer(viewerId) + " is connected peer-to-peer");
    keyFrameWanted();
}

void PeerSessions::endAfter(const std::string& viewerId, Session& session,
                            MainQueue::Duration delay, const std::string& reason) {
    if (session.deadline) {
        session.deadline->cancel();
    }
    session.deadline =
        services_.mainQueue.postAfter(delay, [self = std::weak_ptr<PeerSessions*>(self_), viewerId,
                                              generation = session.generation, reason] {
            const auto alive = self.lock();
            if (!alive) {
                return;
            }
            const auto it = (*alive)->sessions_.find(viewerId);
            if (it != (*alive)->sessions_.end() && it->second.generation == generation) {
                (*alive)->end(viewerId, reason);
            }
        });
}

void PeerSessions::end(const std::string& viewerId, const std::optional<std::string>& reason) {
    const auto it = sessions_.find(viewerId);
    if (it == sessions_.end()) {
        return;
    }
    if (it->second.deadline) {
        it->second.deadline->cancel();
    }
    services_.fanOut.remove(viewerId);
    sessions_.erase(it);
    if (reason) {
        refuse(viewerId, *reason);
    }
}

void PeerSessions::closeAll(const std::optional<std::string>& reason) {
    while (!sessions_.empty()) {
        // A copy: ending the session frees its key.
        const std::string viewerId = sessions_.begin()->first;
        end(viewerId, reason);
    }
}

void PeerSessions::refuse(const std::string& viewerId, const std::string& reason) {
    services_.log.write(viewer(viewerId) + ": " + reason + " — it stays on relay frames");
    services_.signal(PeerSignal::error(viewerId, reason));
}

void PeerSessions::keyFrameWanted() {
    if (keyFrameCooldown_) {
        keyFrameHeld_ = true;
        return;
    }
    services_.requestKeyFrame();
    keyFrameCooldown_ = services_.mainQueue.postAfter(
        kKeyFrameInterval, [self = std::weak_ptr<PeerSessions*>(self_)] {
            const auto alive = self.lock();
            if (!alive) {
                return;
            }
            PeerSessions& sessions = **alive;
            sessions.keyFrameCooldown_.reset();
            if (std::exchange(sessions.keyFrameHeld_, false)) {
                sessions.keyFrameWanted();
            }
        });
}

}  // namespace velmorand
