#include "velmorand/extension/BroadcastStatus.h"

#include <algorithm>
#include <utility>

namespace velmorand::extension {

BroadcastStatus::BroadcastStatus(BroadcastState start, Publish publish, WallClock now)
    : state_(std::move(start)), publish_(std::move(publish)), now_(std::move(now)) {
    publish_(state_);
}

void BroadcastStatus::connecting() {
    // Viewers are the relay's: a new link hears anew which of them want the stream.
    wanted_ = false;
    heard_.clear();
    auto next = state_;
    next.phase = BroadcastState::Phase::connecting;
    next.viewers = 0;
    publishWith(next);
}

void BroadcastStatus::linkOpen() {
    auto next = state_;
    next.phase = BroadcastState::Phase::live;
    next.viewers = viewerCount(now_());
    publishWith(next);
}

void BroadcastStatus::streamWanted(bool wanted) {
    wanted_ = wanted;
    auto next = state_;
    next.phase = wanted ? BroadcastState::Phase::live : BroadcastState::Phase::paused;
    next.viewers = viewerCount(now_());
    publishWith(next);
}

void BroadcastStatus::viewerHeard(std::string_view viewerId) {
    if (viewerId.empty() || viewerId.size() > kMaxViewerIdBytes) {
        return;
    }
    const auto now = now_();
    if (const auto found = heard_.find(viewerId); found != heard_.end()) {
        found->second = now;
    } else {
        if (heard_.size() >= kMaxViewersKept) {
            heard_.erase(
                std::min_element(heard_.begin(), heard_.end(),
                                 [](const auto& a, const auto& b) { return a.second < b.second; }));
        }
        heard_.emplace(viewerId, now);
    }
    auto next = state_;
    next.viewers = viewerCount(now);
    publishWith(next);
}

void BroadcastStatus::commandArrived() {
    const auto now = now_();
    if (now - state_.operatedAtMs < kOperatedGrainMs) {
        return;
    }
    auto next = state_;
    next.operatedAtMs = now;
    publishWith(next);
}

void BroadcastStatus::refresh() {
    const auto now = now_();
    std::erase_if(heard_,
                  [now](const auto& entry) { return now - entry.second >= kViewerSilenceMs; });
    auto next = state_;
    next.viewers = viewerCount(now);
    publishWith(next);
}

int BroadcastStatus::viewerCount(std::int64_t nowMs) const {
    const auto recent = std::count_if(heard_.begin(), heard_.end(), [nowMs](const auto& entry) {
        return nowMs - entry.second < kViewerSilenceMs;
    });
    // Viewers need not probe: one that asked for the stream is there all the same.
    return static_cast<int>(std::max<std::ptrdiff_t>(recent, wanted_ ? 1 : 0));
}

void BroadcastStatus::publishWith(BroadcastState next) {
    if (next == state_) {
        return;
    }
    state_ = std::move(next);
    publish_(state_);
}

}  // namespace velmorand::extension
