#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "velmorand/platform/ScreenCapture.h"

namespace velmorand {

// A screen-cast stream of a Wayland compositor, received over PipeWire in shared memory (MemFd or
// MemPtr buffers, 32-bit BGRx, BGRA, RGBx or RGBA), the cursor drawn in by the compositor. The
// compositor sends a buffer only when the screen changed; a grab in between repeats the last
// picture. Buffers are copied out on PipeWire's own thread, as they come.
class PipeWireScreenCapture : public ScreenCapture {
  public:
    // How long opening waits for the first picture.
    static constexpr std::chrono::seconds kFirstFrameTimeout{10};

    // `remote`: a PipeWire connection a portal handed out, which the capture takes over; -1 to
    // use the session's own PipeWire. `node`: the stream's node id. Returns once the first
    // picture has come, or why none did.
    static std::variant<std::unique_ptr<ScreenCapture>, CaptureError> open(int remote,
                                                                           std::uint32_t node);

    ~PipeWireScreenCapture() override;
    PipeWireScreenCapture(const PipeWireScreenCapture&) = delete;
    PipeWireScreenCapture& operator=(const PipeWireScreenCapture&) = delete;

    bool waitForChange(Clock::time_point deadline) override;
    void wake() override;
    ScreenSize size() override;
    std::variant<ScreenImage, CaptureError> grab() override;

  private:
    struct Loop;

    PipeWireScreenCapture();

    // On PipeWire's thread.
    void formatChanged(const void* format);
    void frameArrived();
    void ended(std::string why);

    std::unique_ptr<Loop> loop_;

    std::mutex mutex_;
    std::condition_variable changed_;
    // The newest picture, not yet grabbed.
    std::vector<std::uint8_t> incoming_;
    ScreenSize incomingSize_;
    bool fresh_ = false;
    bool woken_ = false;
    // A format was agreed: something linked the compositor's stream to ours.
    bool linked_ = false;
    std::optional<std::string> ended_;

    // PipeWire's thread only: the negotiated format, and where the next copy goes.
    int order_ = 0;
    ScreenSize format_;
    std::vector<std::uint8_t> scratch_;

    // The grabbing thread only.
    std::vector<std::uint8_t> current_;
    ScreenSize currentSize_;
};

}  // namespace velmorand
