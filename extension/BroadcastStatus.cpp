#include "velmorand/extension/BroadcastStatus.h"

#include <algorithm>
#include <chrono>
#include <utility>

namespace velmorand::extension {

BroadcastStatus::BroadcastStatus(BroadcastState start, Publish publish, WallClock now,
                                 MainQueue& mainQueue)
    : state_(std::move(start)),
      publish_(std::move(publish)),
      now_(std::move(now)),
      mainQueue_(mainQueue) {
    publishNow(now_());
}

BroadcastStatus::~BroadcastStatus() {
    if (pending_) {
        pending_->cancel();
    }
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
    // A clock set back since the last command must not hide the ones that follow.
    if (now >= state_.operatedAtMs && now - state_.operatedAtMs < kOperatedGrainMs) {
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
    if (pending_) {
        return;  // the write already due takes this change along
    }
    const auto now = now_();
    const auto since = now - publishedAtMs_;
    if (since < 0 || since >= kPublishIntervalMs) {
        publishNow(now);
        return;
    }
    pending_ = mainQueue_.postAfter(std::chrono::milliseconds(kPublishIntervalMs - since), [this] {
        pending_.reset();
        publishNow(now_());
    });
}

void BroadcastStatus::publishNow(std::int64_t nowMs) {
    publishedAtMs_ = nowMs;
    publish_(state_);
}

}  // namespace velmorand::extension
