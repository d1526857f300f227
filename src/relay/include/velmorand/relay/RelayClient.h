#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

#include "velmorand/platform/Log.h"
#include "velmorand/platform/MainQueue.h"
#include "velmorand/platform/StoredValue.h"
#include "velmorand/platform/WebSocket.h"
#include "velmorand/relay/Control.h"
#include "velmorand/relay/FrameHeader.h"
#include "velmorand/relay/RelayOutbound.h"

namespace velmorand {

// Keeps one WebSocket to the relay alive for a device, answers its probes and hands every viewer
// message to the owner's callbacks. Everything, callbacks included, happens on the main queue;
// timers, hops and completions hold the client weakly, so dropping the last owner ends it.
class RelayClient : public std::enable_shared_from_this<RelayClient> {
  public:
    struct Services {
        MainQueue& mainQueue;
        Log& log;
        WebSocketSessionFactory makeSession;
        // Uniform in [0, 1); empty means the system's random source.
        std::function<double()> random;
    };

    // Seconds.
    struct ReconnectPolicy {
        double minDelay = 1;
        double maxDelay = 30;
        // Must be positive and finite; anything else stops the process at the first reconnect.
        double jitter = 1;
    };

    using Socket = std::shared_ptr<WebSocketTask>;

    // `relayBase` is a WebSocket URL without the "/device" path.
    static std::shared_ptr<RelayClient> make(std::string relayBase, std::string deviceToken,
                                             Services services);
    ~RelayClient();

    RelayClient(const RelayClient&) = delete;
    RelayClient& operator=(const RelayClient&) = delete;

    // Takes effect from the next reconnect; set it before connect().
    void setReconnectPolicy(const ReconnectPolicy& policy);
    // How long each attempt may take to open before it fails; 60 seconds unless set. Takes
    // effect from the next attempt.
    void setRequestTimeout(std::chrono::milliseconds timeout);

    // Starts a fresh connection attempt, abandoning any pending reconnect. Main thread only.
    void connect();

    // The single entry point for inbound frames: answers probes, passes signalling through and
    // turns everything else into callbacks. Main thread only.
    void handleText(std::string_view text);

    // Sends one reply record (anything with `encode() -> optional<string>`); dropped silently
    // while disconnected or when it cannot be encoded.
    template <typename Reply>
    void sendJSON(const Reply& reply) {
        if (auto json = reply.encode()) {
            transmit(std::move(*json), std::nullopt);
        }
    }
    // Any thread.
    void transmit(std::optional<std::string> text, std::optional<Bytes> binary);

    // What sends go out on: the connection, and whether a send on it has failed already (only the
    // first failure of a link is logged: the rest tell the same story, as often as sends come).
    struct Link {
        Socket task;
        std::shared_ptr<std::atomic<bool>> sendFailed;
    };
    using FrameOutcome = RelayOutbound<Link>::Outcome;
    // Any thread. Sends one frame as a binary message: `header`, numbered here in the order of
    // the connection's frames, then `payload`. Its bytes count against `budget` until the socket
    // has written them; a frame that would take the count past the budget is not sent.
    FrameOutcome sendFrame(FrameHeader header, std::span<const std::uint8_t> payload,
                           std::int64_t budget);
    // Bytes of frames handed to the socket and not yet written by it.
    std::int64_t frameBytesInFlight() const;

    std::function<void(const Control&)> onControl;
    std::function<void()> onOpen;
    std::function<void(std::optional<std::string> prefer)> onNeedStream;
    std::function<void()> onRequestIdr;
    std::function<void(std::string tier)> onStreamQuality;
    std::function<void(std::int64_t rttMs, double lossPct, std::optional<std::string> tier,
                       std::int64_t decodeQueue, std::int64_t jitterMs)>
        onQos;
    std::function<void(double congestion)> onRelayQos;
    std::function<void()> onAuthRejected;
    // The link (or the attempt at one) has ended, by an error or a close, and a reconnect is
    // scheduled: whatever viewers asked for through it has lost its viewers.
    std::function<void()> onLinkLost;
    // The whole signalling message, always a JSON object.
    std::function<void(const nlohmann::json& message)> onWebRtcSignal;
    std::function<void(std::optional<std::int64_t> fps, std::optional<double> quality,
                       std::optional<double> scale, std::optional<std::string> codec)>
        onEncodeSettings;
    std::function<void(bool streaming)> onStreamControl;
    // A latency probe was answered; its viewer, when it named one. The probe carries no other
    // sign of which viewers are watching.
    std::function<void(const std::optional<std::string>& viewerId)> onLatencyProbe;

  private:
    class SessionDelegate;

    RelayClient(std::string relayBase, std::string deviceToken, Services services);

    WebSocketSession& session();
    void armReceive(const Socket& task);
    void received(const std::weak_ptr<WebSocketTask>& from, WebSocketTask::ReceiveResult result);
    void taskOpened(const Socket& task);
    void taskClosed(const Socket& task, int closeCode, const std::optional<std::string>& reason);
    void markOpened(bool proven);
    void scheduleReconnect();
    bool takeWebRtcSignal(std::string_view text);
    void log(std::string_view message);

    const std::string relayBase_;
    const std::string deviceToken_;
    MainQueue& mainQueue_;
    Log& log_;
    WebSocketSessionFactory makeSession_;
    std::function<double()> random_;
    std::shared_ptr<RelayOutbound<Link>> outbound_;
    Socket task_;
    std::unique_ptr<WebSocketSession> session_;
    ReconnectPolicy policy_;
    double reconnectDelay_;
    std::chrono::milliseconds requestTimeout_{60'000};
    std::shared_ptr<WorkItem> pendingReconnect_;
    bool opened_ = false;
    bool connectionProven_ = false;
};

}  // namespace velmorand
