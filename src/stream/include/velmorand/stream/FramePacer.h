#pragma once

#include <chrono>
#include <cstdint>

namespace velmorand {

// When the next frame may be captured: only when the screen changed or a viewer asked for a
// frame, and at no more than the frame rate.
//
// A change may be taken when three quarters of an interval have passed since the last frame, so
// that each frame taken early moves the next one earlier: a screen that changes at the frame rate
// is soon taken as each paint comes, instead of a paint's worth of waiting settling between its
// paints and the captures. What that lets through beyond the frame rate is held to two frames
// over any stretch of time: each frame also has its place on a schedule one interval apart, and
// may not run more than two places ahead of it.
class FramePacer {
  public:
    using Clock = std::chrono::steady_clock;

    struct Decision {
        enum class Kind { captureNow, waitUntil, waitForChange };
        Kind kind = Kind::waitForChange;
        // For waitUntil.
        Clock::time_point until{};

        bool operator==(const Decision&) const = default;
    };

    // 1 to 60 frames per second.
    void setFrameRate(std::int64_t frameRate);
    void captured(Clock::time_point at);

    Decision decide(Clock::time_point now, bool changed, bool frameWanted) const;

  private:
    Clock::duration interval_ = std::chrono::milliseconds(50);
    // Far enough in the past that the first frame is never held back.
    Clock::time_point lastCapture_ = Clock::time_point(Clock::duration::min() / 2);
    // Where the next frame's place is on the schedule.
    Clock::time_point scheduled_ = lastCapture_;
};

}  // namespace velmorand
