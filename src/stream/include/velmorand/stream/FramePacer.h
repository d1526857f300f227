#pragma once

#include <chrono>
#include <cstdint>

namespace velmorand {

// When the next frame may be captured: only when the screen changed or a viewer asked for a
// frame, and never sooner than one frame interval after the last capture.
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
    void captured(Clock::time_point at) { lastCapture_ = at; }

    Decision decide(Clock::time_point now, bool changed, bool frameWanted) const;

  private:
    Clock::duration interval_ = std::chrono::milliseconds(50);
    // Far enough in the past that the first frame is never held back.
    Clock::time_point lastCapture_ = Clock::time_point(Clock::duration::min() / 2);
};

}  // namespace velmorand
