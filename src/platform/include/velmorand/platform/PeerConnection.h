#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace velmorand {

// A STUN or TURN server a viewer names for the connection, as a browser's configuration does.
struct IceServer {
    std::vector<std::string> urls;
    std::string username;
    std::string credential;

    bool operator==(const IceServer&) const = default;
};

// One ICE candidate line of the video section; an empty `candidate` ends the list.
struct IceCandidate {
    std::string candidate;
    std::string sdpMid;
    int sdpMLineIndex = 0;

    bool operator==(const IceCandidate&) const = default;
};

// A send-only peer-to-peer connection to one viewer: answers the viewer's offer, trickles its
// candidates, and carries the stream's H.264 access units to the viewer over SRTP.
class PeerConnection {
  public:
    struct Setup {
        // The viewer's offer, already checked to carry the payload type below.
        std::string offer;
        // The offer's packetization-mode 1, constrained-baseline H.264 entry.
        int payloadType = 0;
        std::vector<IceServer> iceServers;
    };

    // Called on the connection's own threads, never after it is destroyed.
    struct Events {
        std::function<void(std::string answer)> onAnswer;
        std::function<void(IceCandidate candidate)> onCandidate;
        // ICE and DTLS are up: access units reach the viewer from now on.
        std::function<void()> onConnected;
        // The connection cannot go on (negotiation, ICE or DTLS failed, or the viewer stopped
        // answering); it sends nothing more.
        std::function<void(std::string reason)> onFailed;
        // The viewer lost the picture (RTCP PLI or FIR) and needs a key frame.
        std::function<void()> onKeyFrameWanted;
        // The viewer's side sent RTCP (a browser reports at least every few seconds while it
        // receives): it is still there.
        std::function<void()> onHeard;
    };

    virtual ~PeerConnection() = default;

    // A remote candidate, once the answer was given.
    virtual void addCandidate(const IceCandidate& candidate) = 0;
    // Any thread: one Annex B access unit. False when the connection had no room for it and
    // dropped it; the units after it are of no use until a key frame.
    virtual bool send(std::span<const std::uint8_t> accessUnit) = 0;
};

// Starts a connection that answers `setup.offer`, or says why it cannot.
using PeerConnectionFactory =
    std::function<std::variant<std::unique_ptr<PeerConnection>, std::string>(
        PeerConnection::Setup setup, PeerConnection::Events events)>;

}  // namespace velmorand
