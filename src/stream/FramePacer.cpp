#include "velmorand/stream/FramePacer.h"

#include <algorithm>

namespace velmorand {

void FramePacer::setFrameRate(std::int64_t frameRate) {
    const auto perSecond = std::clamp<std::int64_t>(frameRate, 1, 60);
    interval_ = std::chrono::duration_cast<Clock::duration>(std::chrono::seconds(1)) / perSecond;
}

FramePacer::Decision FramePacer::decide(Clock::time_point now, bool changed,
                                        bool frameWanted) const {
    if (!changed && !frameWanted) {
        return {Decision::Kind::waitForChange, {}};
    }
    const auto earliest = lastCapture_ + interval_;
    if (now >= earliest) {
        return {Decision::Kind::captureNow, {}};
    }
    return {Decision::Kind::waitUntil, earliest};
}

}  // namespace velmorand
