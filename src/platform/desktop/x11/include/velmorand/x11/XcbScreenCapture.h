#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <variant>

#include "velmorand/platform/ScreenCapture.h"

struct xcb_connection_t;

namespace velmorand {

// The whole default screen of an X11 display, cursor included. Pixels come through a shared
// memory segment the server writes into; DAMAGE, the XFIXES cursor and RANDR events say when
// there is something new to grab.
class XcbScreenCapture : public ScreenCapture {
  public:
    // `displayName` as X11 spells it (":0"); nullptr takes $DISPLAY.
    static std::variant<std::unique_ptr<ScreenCapture>, CaptureError> open(const char* displayName);

    ~XcbScreenCapture() override;
    XcbScreenCapture(const XcbScreenCapture&) = delete;
    XcbScreenCapture& operator=(const XcbScreenCapture&) = delete;

    bool waitForChange(Clock::time_point deadline) override;
    void wake() override;
    ScreenSize size() override;
    std::variant<ScreenImage, CaptureError> grab() override;

  private:
    struct Cursor {
        int x = 0;
        int y = 0;
        bool operator==(const Cursor&) const = default;
    };

    XcbScreenCapture(xcb_connection_t* connection, std::uint32_t root, int wakeFd);

    std::optional<CaptureError> setUp();
    // Reads every event the connection has queued and notes what they mean.
    void drainEvents();
    void checkCursorMoved();
    void readScreenSize();
    bool lost();
    // A segment of at least `bytes`, attached to the server; false with `error` set if not.
    bool ensureSegment(std::size_t bytes, CaptureError& error);
    void releaseSegment();
    std::variant<ScreenImage, CaptureError> grabOnce(bool& sizeMoved);

    xcb_connection_t* connection_;
    std::uint32_t root_;
    int wakeFd_;
    std::uint8_t damageEvent_ = 0;
    std::uint8_t xfixesEvent_ = 0;
    std::uint8_t randrEvent_ = 0;
    std::uint32_t damage_ = 0;
    std::uint32_t segment_ = 0;
    std::uint8_t* shared_ = nullptr;
    std::size_t sharedBytes_ = 0;
    ScreenSize size_;
    bool changed_ = true;
    Cursor cursor_;
};

}  // namespace velmorand
