#pragma once

#include <QByteArray>
#include <QByteArrayView>
#include <QObject>
#include <QString>
#include <QTimer>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "velmorand/stream/FrameBudget.h"

class QWebSocket;

namespace velmorand::sandbox {

// The relay: one device and any number of viewers. Text goes both ways unchanged; the device's
// pongs end here, except as many as answer viewers' pings, which reach the viewers. The device's
// frames go to every viewer that has room for them, as a relay in front of slow links must: a
// viewer whose link falls behind, like one that has just joined, gets nothing until a key frame,
// and the device is asked for one. The stream starts with the first viewer and stops with the
// last. Lives on the thread of the service that hands it sockets.
//
// Peer-to-peer signalling (with `peerToPeer` only) is routed: a viewer's offer, candidates and
// close reach the device with the relay's own name for that viewer as "viewerId" (any other
// signalling from a viewer is dropped), and the device's reach only the viewer they name. A viewer
// whose peer connection is up ("webrtc_connected") gets no frames from here until it ends
// ("webrtc_error" from the device, "webrtc_close" from the viewer), and only while it has an offer
// open (a connection the viewer closed meanwhile stays closed); once any viewer went peer-to-peer,
// the device hears how many still take frames here ("webrtc_relay_viewers"), and a viewer that
// offered and leaves is closed for it ("webrtc_close").
class SandboxRelay {
  public:
    using TokenCheck = std::function<bool(std::string_view token)>;

    // Larger frames are dropped.
    static constexpr std::int64_t kMaxFrameBytes = 16 * 1024 * 1024;

    struct FrameCounts {
        // Valid frames from the device.
        std::uint64_t received = 0;
        // Device frames dropped for want of a valid header, or for their size.
        std::uint64_t rejected = 0;
        // Summed over viewers.
        std::uint64_t forwarded = 0;
        std::uint64_t missed = 0;
    };

    // Who may join as a viewer: a connection that brings `token` (as the "token" query item) and
    // comes from no web page or from the sandbox's own page, at the address it listens on
    // (`host`) or by a loopback name.
    struct ViewerAccess {
        std::string token;
        std::string host;
    };
    static constexpr int kViewerTokenRefused = 4401;
    static constexpr int kForeignPageRefused = 4403;

    // A zero `pingInterval` sends no pings. Without `peerToPeer`, viewers' signalling goes
    // nowhere.
    SandboxRelay(TokenCheck isIssuedToken, ViewerAccess viewers,
                 std::chrono::milliseconds pingInterval, bool peerToPeer);
    ~SandboxRelay();
    SandboxRelay(const SandboxRelay&) = delete;
    SandboxRelay& operator=(const SandboxRelay&) = delete;

    // Takes over a socket whose upgrade is done; a path ending in "/device" or "/viewer" picks
    // its role, anything else is closed.
    void accept(std::unique_ptr<QWebSocket> socket);
    // Aborts every link without a close frame, as a relay that vanished would.
    void dropAll();

    bool closeDevice(int code, const QString& reason);
    // Whether a request's Host header names this sandbox: its listening address or a loopback
    // name, with any port.
    bool isOwnHost(QByteArrayView host) const;
    bool sendToDevice(const QByteArray& payload, bool binary);

    // A viewer as the relay sees it: its name in signalling, its path, the frames it was sent.
    struct ViewerState {
        std::string id;
        bool peerToPeer = false;
        std::uint64_t forwarded = 0;
    };
    std::vector<ViewerState> viewerStates() const;

    bool deviceConnected() const { return device_ != nullptr; }
    std::size_t viewerCount() const { return viewers_.size(); }
    std::size_t deviceConnections() const { return deviceConnections_; }
    std::size_t pongs() const { return pongs_; }
    const FrameCounts& frameCounts() const { return frames_; }
    const std::optional<std::string>& lastDeviceToken() const { return lastDeviceToken_; }
    // The token of the connected device; empty when none is connected.
    std::optional<std::string> deviceToken() const {
        return device_ != nullptr ? std::optional(deviceToken_) : std::nullopt;
    }

  private:
    struct Viewer {
        QWebSocket* socket = nullptr;
        std::string id;
        // Frames before the next key frame are of no use to it.
        bool needsKeyFrame = true;
        // Its picture comes peer-to-peer: it gets no frames here.
        bool peerToPeer = false;
        // It offered a peer connection, which the device may still hold.
        bool offered = false;
        std::uint64_t forwarded = 0;
    };

    void acceptDevice(QWebSocket* socket);
    void acceptViewer(QWebSocket* socket);
    // Why a viewer's upgrade is refused, with its close code; absent when it may join.
    std::optional<std::pair<int, QString>> viewerRefusal(const QWebSocket& socket) const;
    void fromViewer(QWebSocket* socket, const QByteArray& payload, bool binary);
    void fromDevice(const QByteArray& payload, bool binary);
    // A viewer's message as the device gets it: signalling named for the viewer, anything else
    // as it came; absent for signalling a viewer may not send.
    std::optional<QByteArray> fromViewerText(Viewer& viewer, const QByteArray& payload);
    // Whether the device's message was signalling, which went to its viewer only.
    bool routedSignal(const QByteArray& payload);
    void setPeerToPeer(Viewer& viewer, bool peerToPeer);
    void tellRelayViewers();
    Viewer* viewerOf(QWebSocket* socket);
    void frameFromDevice(const QByteArray& frame);
    void measureFrameRate(std::uint64_t captureTimeUs);
    void requestKeyFrame();
    void forget(QWebSocket* socket);

    TokenCheck isIssuedToken_;
    const ViewerAccess viewerAccess_;
    const bool peerToPeer_;
    // Parent of every socket; the sockets' handlers run in its context.
    QObject context_;
    QTimer pingTimer_;
    // Holds back a key-frame request that comes too soon after the last one.
    QTimer keyFrameTimer_;
    std::optional<std::chrono::steady_clock::time_point> lastKeyFrameRequest_;
    QWebSocket* device_ = nullptr;
    std::vector<Viewer> viewers_;
    std::uint64_t nextViewerNumber_ = 1;
    // The device has been told how many viewers take frames here, and hears of every change.
    bool relayViewersTold_ = false;
    std::size_t deviceConnections_ = 0;
    std::size_t pongs_ = 0;
    std::optional<std::string> lastDeviceToken_;
    std::string deviceToken_;
    // Viewer pings the device has yet to answer.
    std::size_t viewerPings_ = 0;
    // One for all viewers: they all get the same stream.
    FrameBudget budget_;
    // The frame rate, counted over about a second of capture times.
    std::uint64_t rateWindowStartUs_ = 0;
    std::int64_t rateWindowFrames_ = 0;
    FrameCounts frames_;
};

}  // namespace velmorand::sandbox
