#pragma once

#include <cstdint>

namespace velmorand {

// How many bytes of frames may wait to be written to a viewer's link: about half a second of
// the stream at its current rate, and never less than 256 KiB. Beyond it frames are dropped, not
// queued, so a slow link costs bounded memory and latency never builds up behind a queue.
class FrameBudget {
  public:
    static constexpr std::int64_t kMinimum = 256 * 1024;

    // Frames per second the stream aims at; at least 1.
    void setFrameRate(std::int64_t frameRate);
    void sent(std::int64_t bytes, bool keyFrame);

    std::int64_t limit() const;
    // What the next frame will probably take: the recent average of its kind. Key frames are
    // tracked apart, since they are many times larger.
    std::int64_t expected(bool keyFrame) const;
    // Whether a frame of the expected size would still fit beside `inFlight` bytes. An idle link
    // always has room: a key frame many times the budget must still go, or the stream that waits
    // for it would never resume.
    bool hasRoom(std::int64_t inFlight, bool keyFrame) const {
        return inFlight == 0 || inFlight + expected(keyFrame) <= limit();
    }

  private:
    std::int64_t frameRate_ = 1;
    // Exponential averages with a weight of 1/8 for each new frame; 0 until the first.
    std::int64_t averageFrame_ = 0;
    std::int64_t averageKeyFrame_ = 0;
};

}  // namespace velmorand
