#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "velmorand/platform/ScreenCapture.h"

namespace velmorand {

// Whether a session has ended, and how: that decides whether another may be opened unasked.
enum class SessionEnd {
    none,
    // The compositor left (it restarted, or failed): a new one's session is the same consent.
    compositorGone,
    // The person at the device stopped sharing: nothing is shared again until they start anew.
    stoppedAtDevice,
};

// Why no session was had. `theirAnswer` when the person at the device said no, did not answer,
// or stopped sharing: asking again within the same broadcast would only nag them.
struct SessionDenied {
    std::string reason;
    bool theirAnswer = false;
};

// A Wayland compositor's remote-desktop session, however it was granted (the compositor's own
// interface, or the desktop portal): input in the screen cast's coordinates, keys as keysyms,
// and, where the session has one, the clipboard. Any thread.
class RemoteDesktopSession {
  public:
    virtual ~RemoteDesktopSession() = default;

    // The monitor's size in the screen cast's coordinates.
    virtual ScreenSize screenSize() const = 0;
    // Whether the compositor (or the portal) closed the session, and why. May take a moment
    // (a bus call) once it has closed.
    virtual SessionEnd ended() const = 0;

    // Sent in order, without waiting for the compositor (a portal's session waits for the
    // portal to pass each on).
    virtual void movePointer(double x, double y) = 0;
    // An evdev button code (BTN_LEFT is 0x110).
    virtual void setButton(std::int32_t button, bool pressed) = 0;
    virtual void setKeysym(std::uint32_t keysym, bool pressed) = 0;
    // Returns once the compositor has taken everything sent before (as far as the session can
    // tell: a portal passes input on without saying when the compositor has it).
    virtual void sync() = 0;
    // How long a press waits after a move: the compositor finds the window under a pointer that
    // has moved only at its next frame, and a press that comes before is lost.
    virtual std::chrono::milliseconds pointerSettle() const = 0;

    // Whether the session can reach the desktop's clipboard at all.
    virtual bool hasClipboard() const = 0;
    // Offers `text` as the desktop's clipboard, until another program takes it.
    virtual void offerText(std::string text) = 0;
    // How many times a program has pasted what was offered.
    virtual std::uint64_t pastes() const = 0;
    // Waits until pastes() exceeds `count`, or for `timeout`; whether it did.
    virtual bool waitForPaste(std::uint64_t count, std::chrono::milliseconds timeout) const = 0;
    // The desktop's clipboard text: what this session offered while it holds the clipboard, or
    // what another program holds there; nothing when it holds no text.
    virtual std::optional<std::string> readText() = 0;
};

}  // namespace velmorand
