#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>

#include "velmorand/config/RelayBase.h"
#include "velmorand/extension/BroadcastStatus.h"
#include "velmorand/extension/NoticeThrottle.h"
#include "velmorand/peer/PeerFanOut.h"
#include "velmorand/peer/PeerSessions.h"
#include "velmorand/remote/RemoteControl.h"
#include "velmorand/stream/LiveSettings.h"
#include "velmorand/stream/ScreenStream.h"

#include "velmorand/platform/MainQueue.h"

namespace velmorand {
class Log;
class RelayClient;
}  // namespace velmorand

namespace velmorand::extension {

// The relay client's owner for one broadcast: streams the screen while viewers ask for it, applies
// their live requests, records every viewer event in the log, and ends the broadcast when the
// relay refuses the device token. Lives on the main queue.
class Broadcast {
  public:
    // Opens the screen stream at the first request, or says why this device cannot stream.
    using StreamOpener = std::function<std::variant<std::unique_ptr<ScreenStream>, std::string>(
        const StreamConfig& config, ScreenStream::Events events)>;
    // Opens the desktop's remote control, or says why there is none.
    using RemoteControlOpener =
        std::function<std::variant<std::shared_ptr<RemoteControl>, std::string>(
            RemoteControl::Report report)>;
    using Clock = LiveSettings::Clock;
    // A stream whose capture ended is opened again after this, doubling while it fails.
    static constexpr MainQueue::Duration kFirstReopenDelay{2.0};
    static constexpr MainQueue::Duration kLongestReopenDelay{30.0};
    // A stream that ran this long before it stopped is opened again after the shortest delay.
    static constexpr std::chrono::seconds kGoodStreamRun{60};

    struct Services {
        RelayClient& client;
        Log& log;
        MainQueue& mainQueue;
        StreamOpener openStream;
        // Empty: view-only, viewers' commands are logged and not carried out.
        RemoteControlOpener openRemoteControl;
        // Empty: the steady clock.
        std::function<Clock::time_point()> clock;
        // Told what people should see of the broadcast.
        BroadcastStatus& status;
        // The stream's sink, which feeds viewers' peer connections beside the relay.
        PeerFanOut& peers;
        // Empty: no peer-to-peer video, and viewers' offers are refused.
        PeerConnectionFactory makePeer;
    };
    // How often viewers that went silent are forgotten.
    static constexpr MainQueue::Duration kStatusRefresh{5.0};

    // `stop` ends the program with the given status; it is called at most once, from the main
    // queue.
    Broadcast(Services services, std::function<void(int exitStatus)> stop);
    ~Broadcast();
    Broadcast(const Broadcast&) = delete;
    Broadcast& operator=(const Broadcast&) = delete;

    // Logs where it connects and the encode settings it starts with, opens the remote control,
    // then connects. Nothing is streamed until a viewer asks.
    void begin(const RelayBase& base, const StreamConfig& start);

  private:
    void attach();
    void refreshStatus();
    void needStream(const std::optional<std::string>& prefer);
    // Why the stream could not be opened; absent when it was.
    std::optional<std::string> openStream();
    // On the main queue, after the stream stopped by itself.
    void streamStopped();
    void scheduleReopen();
    // Hands the live settings to the stream, if there is one, and logs them.
    void applySettings();
    // The viewers are gone: what they asked for and has not been done yet is dropped.
    void endCommands(std::string_view why);
    // Peers can carry nothing but H.264: when the stream leaves it, they go back to the relay.
    void endPeersUnlessH264();
    ScreenStream::Events streamEvents();

    RelayClient& client_;
    Log& log_;
    MainQueue& mainQueue_;
    NoticeThrottle notices_;
    StreamOpener openStream_;
    RemoteControlOpener openRemoteControl_;
    std::shared_ptr<RemoteControl> remoteControl_;
    std::function<Clock::time_point()> clock_;
    std::function<void(int)> stop_;
    std::optional<LiveSettings> settings_;
    std::unique_ptr<ScreenStream> stream_;
    // Set once opening the stream failed: the reason is logged once, and not tried again.
    bool cannotStream_ = false;
    // Viewers want the stream: it was asked for and not stopped since.
    bool streamWanted_ = false;
    BroadcastStatus& status_;
    PeerSessions peers_;
    std::shared_ptr<WorkItem> statusRefresh_;
    std::shared_ptr<WorkItem> reopen_;
    MainQueue::Duration reopenDelay_ = kFirstReopenDelay;
    Clock::time_point streamOpenedAt_;
    std::uint64_t qosReports_ = 0;
    bool stopping_ = false;
    // Work posted from the stream's thread runs only while the broadcast exists.
    std::shared_ptr<Broadcast*> self_ = std::make_shared<Broadcast*>(this);
};

}  // namespace velmorand::extension
