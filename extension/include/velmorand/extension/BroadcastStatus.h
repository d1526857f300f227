#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>

#include "velmorand/config/BroadcastState.h"
#include "velmorand/platform/MainQueue.h"

namespace velmorand::extension {

// What the running broadcast says about itself to the application, the command line and its
// indicator: kept from the relay's events, and published whenever what a person would see
// changes. Lives on the main queue.
class BroadcastStatus {
  public:
    using Publish = std::function<void(const BroadcastState&)>;
    // Milliseconds since the epoch: the published times are read by other processes.
    using WallClock = std::function<std::int64_t()>;

    // A viewer not heard from this long has gone; viewers probe the latency every second.
    static constexpr std::int64_t kViewerSilenceMs = 15'000;
    // A command's time is published at this grain, so that a drag is not a write per move.
    static constexpr std::int64_t kOperatedGrainMs = 2'000;
    // Changes closer together than this are written as one, whatever viewers send.
    static constexpr std::int64_t kPublishIntervalMs = 250;
    // Viewer ids come from viewers: only this many, this long, are kept.
    static constexpr std::size_t kMaxViewersKept = 64;
    static constexpr std::size_t kMaxViewerIdBytes = 128;

    // `start` names the process and whether it is view-only; it is published at once.
    BroadcastStatus(BroadcastState start, Publish publish, WallClock now, MainQueue& mainQueue);
    ~BroadcastStatus();
    BroadcastStatus(const BroadcastStatus&) = delete;
    BroadcastStatus& operator=(const BroadcastStatus&) = delete;

    void connecting();
    void linkOpen();
    // A viewer asked for the stream (true), or the stream was stopped (false: paused).
    void streamWanted(bool wanted);
    void viewerHeard(std::string_view viewerId);
    void commandArrived();
    // Forgets the viewers gone silent; called every few seconds.
    void refresh();

    const BroadcastState& state() const { return state_; }

  private:
    void publishWith(BroadcastState next);
    void publishNow(std::int64_t nowMs);
    int viewerCount(std::int64_t nowMs) const;

    BroadcastState state_;
    Publish publish_;
    WallClock now_;
    MainQueue& mainQueue_;
    std::int64_t publishedAtMs_ = 0;
    // The write of changes that came too soon after the last, when one is due.
    std::shared_ptr<WorkItem> pending_;
    bool wanted_ = false;
    // Viewer id → when it was last heard from.
    std::map<std::string, std::int64_t, std::less<>> heard_;
};

}  // namespace velmorand::extension
