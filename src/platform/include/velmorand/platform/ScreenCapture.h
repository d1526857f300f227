#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <variant>

namespace velmorand {

struct ScreenSize {
    int width = 0;
    int height = 0;

    bool operator==(const ScreenSize&) const = default;
};

// One grab of the whole screen, cursor drawn in: 32-bit pixels with the bytes B, G, R and one
// unused, rows `stride` bytes apart. Valid until the next grab.
struct ScreenImage {
    const std::uint8_t* pixels = nullptr;
    int width = 0;
    int height = 0;
    int stride = 0;
};

struct CaptureError {
    std::string description;
};

// The screen of one display, grabbed when something on it has changed. One thread uses it at a
// time; only wake() may be called from any thread.
class ScreenCapture {
  public:
    using Clock = std::chrono::steady_clock;

    virtual ~ScreenCapture() = default;

    // Returns true at once when the screen has changed since the last grab (a new capture counts
    // as changed); otherwise waits for a change, for wake() or for `deadline`, and says whether
    // a change came.
    virtual bool waitForChange(Clock::time_point deadline) = 0;
    // Ends the current wait, or the next one if none is under way.
    virtual void wake() = 0;
    // The size the next grab will have; it follows the screen's resizes.
    virtual ScreenSize size() = 0;
    virtual std::variant<ScreenImage, CaptureError> grab() = 0;
};

}  // namespace velmorand
