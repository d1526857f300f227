#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json_fwd.hpp>

#include "velmorand/peer/PeerFanOut.h"
#include "velmorand/peer/PeerSignal.h"
#include "velmorand/platform/Log.h"
#include "velmorand/platform/MainQueue.h"
#include "velmorand/platform/PeerConnection.h"

namespace velmorand {

// The device's side of peer-to-peer video: one session per viewer that offers, from the offer
// through the answer and the trickled candidates to the connection, and its end when the viewer
// closes it, it fails or the stream can no longer feed it. Viewers beyond the cap, and offers the
// device cannot answer, are told why and stay on relay frames. Lives on the main queue.
class PeerSessions {
  public:
    static constexpr std::size_t kMaxPeers = 4;
    // Remote candidates kept per session; more are dropped.
    static constexpr std::size_t kMaxCandidates = 64;
    // Offers taken per window, over all viewers, refused ones too; more are refused until it ends.
    static constexpr std::size_t kMaxOffersPerWindow = 8;
    static constexpr MainQueue::Duration kOfferWindow{5.0};
    // A session whose connection is not up by then ends.
    static constexpr MainQueue::Duration kConnectTimeout{15.0};
    // A connected viewer not heard from for this long (no RTCP) is taken for gone: its browser
    // closed without a word, or its link died.
    static constexpr MainQueue::Duration kSilenceLimit{20.0};
    // Peers' key-frame requests reach the encoder at most this often; one that comes sooner is
    // held until then.
    static constexpr MainQueue::Duration kKeyFrameInterval{1.0};

    struct Services {
        MainQueue& mainQueue;
        Log& log;
        // Empty: this build cannot do peer-to-peer, and every offer is refused.
        PeerConnectionFactory makePeer;
        // Sends one signalling message to the relay.
        std::function<void(const std::string& message)> signal;
        // Asks the stream for a key frame at once.
        std::function<void()> requestKeyFrame;
        // Whether the stream is H.264, the only codec a peer can carry.
        std::function<bool()> streamIsH264;
        // Outlives the sessions.
        PeerFanOut& fanOut;
    };

    explicit PeerSessions(Services services);
    ~PeerSessions();
    PeerSessions(const PeerSessions&) = delete;
    PeerSessions& operator=(const PeerSessions&) = delete;

    // One signalling message from the relay.
    void handle(const nlohmann::json& message);
    // Ends every session; with a reason, each viewer is told it (and goes back to relay frames).
    void closeAll(const std::optional<std::string>& reason);
    // The relay link was lost: what it said about its viewers no longer holds.
    void relayLost();

    std::size_t sessionCount() const { return sessions_.size(); }

  private:
    struct Session {
        std::uint64_t generation = 0;
        std::shared_ptr<PeerConnection> peer;
        std::string videoMid;
        bool answered = false;
        bool connected = false;
        std::vector<IceCandidate> early;
        std::size_t candidates = 0;
        // Until it is connected, the wait for that; then the wait for its next word.
        std::shared_ptr<WorkItem> deadline;
    };

    void offer(PeerSignal::Offer offer);
    void candidate(const PeerSignal::Candidate& candidate);
    void relayViewers(std::int64_t count);
    // Counts an offer, valid or not, against the window's budget; past it, the viewer is refused.
    bool withinOfferBudget(const std::string& viewerId);
    // Why a new session cannot begin now; absent when it can.
    std::optional<std::string> refusal(const std::string& viewerId);
    PeerConnection::Events events(const std::string& viewerId, std::uint64_t generation);
    // Runs `act` on the main queue if the viewer's session is still that generation.
    void later(const std::string& viewerId, std::uint64_t generation,
               std::function<void(Session&)> act);
    void connected(const std::string& viewerId, Session& session);
    // Ends the viewer's session after `delay` unless this is called again first.
    void endAfter(const std::string& viewerId, Session& session, MainQueue::Duration delay,
                  const std::string& reason);
    void end(const std::string& viewerId, const std::optional<std::string>& reason);
    void keyFrameWanted();
    void refuse(const std::string& viewerId, const std::string& reason);

    Services services_;
    std::map<std::string, Session> sessions_;
    std::uint64_t nextGeneration_ = 1;
    std::size_t offersInWindow_ = 0;
    std::shared_ptr<WorkItem> offerWindow_;
    // Set while a key frame was asked for within the last interval; `keyFrameHeld_` while
    // another waits for it to end.
    std::shared_ptr<WorkItem> keyFrameCooldown_;
    bool keyFrameHeld_ = false;
    // Work posted from the connections' threads runs only while the sessions exist.
    std::shared_ptr<PeerSessions*> self_ = std::make_shared<PeerSessions*>(this);
};

}  // namespace velmorand
