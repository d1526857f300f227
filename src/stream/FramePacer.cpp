#include "velmorand/stream/FramePacer.h"

#include <algorithm>

namespace velmorand {

namespace {

// How far ahead of its schedule a frame may be: two intervals.
constexpr int kIntervalsAhead = 2;

}  // namespace

void FramePacer::setFrameRate(std::int64_t frameRate) {
    const auto perSecond = std::clamp<std::int64_t>(frameRate, 1, 60);
    const auto interval =
        std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(1)) / perSecond;
    if (interval != interval_) {
        // The schedule keeps its lead over the last frame, counted in intervals of the new rate:
        // starting it afresh would let each change of rate buy frames beyond the cap.
        const std::chrono::duration<double> lead = scheduled_ - lastCapture_;
        const double places = lead / std::chrono::duration<double>(interval_);
        interval_ = interval;
        scheduled_ = lastCapture_ + std::chrono::duration_cast<Clock::duration>(interval_ * places);
    }
}

void FramePacer::captured(Clock::time_point at) {
    lastCapture_ = at;
    scheduled_ = std::max(scheduled_, at) + interval_;
}

FramePacer::Decision FramePacer::decide(Clock::time_point now, bool changed,
                                        bool frameWanted) const {
    if (!changed && !frameWanted) {
        return {Decision::Kind::waitForChange, {}};
    }
    const auto earliest = std::max(lastCapture_ + interval_ - interval_ / 4,
                                   scheduled_ - kIntervalsAhead * interval_);
    if (now >= earliest) {
        return {Decision::Kind::captureNow, {}};
    }
    return {Decision::Kind::waitUntil, earliest};
}

}  // namespace velmorand
