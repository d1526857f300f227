#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "velmorand/platform/PeerConnection.h"

namespace velmorand {

// One viewer's peer connection as a GStreamer pipeline of its own: the access units enter an
// application source, are packetized as RTP H.264, and leave through webrtcbin, which does ICE,
// DTLS-SRTP and RTCP. Each connection keeps at most kMaxQueuedBytes waiting; a link that stalls
// loses units, never memory.
class GstPeerConnection final : public PeerConnection {
  public:
    static constexpr std::uint64_t kMaxQueuedBytes = 4 * 1024 * 1024;

    struct Options {
        // Also gathers candidates on 127.0.0.1, which libnice leaves out: for tests on a host
        // whose only interface is loopback.
        bool loopback = false;
    };

    // Initializes GStreamer once and checks that every element a connection needs loads; the
    // missing one when not.
    static std::optional<std::string> loadPlugins();
    // The same from GStreamer's registry alone, which lists only what loaded in its plug-in
    // scanner: without loading the plug-ins into this process.
    static std::optional<std::string> findPlugins();
    static PeerConnectionFactory factory(Options options);

    ~GstPeerConnection() override;
    GstPeerConnection(const GstPeerConnection&) = delete;
    GstPeerConnection& operator=(const GstPeerConnection&) = delete;

    void addCandidate(const IceCandidate& candidate) override;
    bool send(std::span<const std::uint8_t> accessUnit) override;

  private:
    struct Pipeline;

    explicit GstPeerConnection(std::unique_ptr<Pipeline> pipeline);

    std::unique_ptr<Pipeline> pipeline_;
};

}  // namespace velmorand
