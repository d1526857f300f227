#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "velmorand/platform/ScreenCapture.h"

namespace velmorand {

class DBusSession;

// One remote-desktop session of GNOME's compositor (mutter), with a screen cast of the primary
// monitor tied to it: the compositor's own D-Bus interfaces, which the desktop's own remote
// desktop service uses and which ask nobody for consent, so that an unattended device works.
// Input goes in the screen cast's coordinates; the clipboard through the session's selection.
// The compositor ends the session when this process goes, however it ends. Any thread.
class GnomeRemoteDesktop {
  public:
    static constexpr const char* kBusName = "org.gnome.Mutter.RemoteDesktop";

    // Why this session bus has no compositor remote desktop to open; absent when it has.
    static std::optional<std::string> unavailable(DBusSession& bus);
    // Starts a session and waits for its screen cast's PipeWire node, or says why it could not.
    static std::variant<std::shared_ptr<GnomeRemoteDesktop>, std::string> open(
        std::shared_ptr<DBusSession> bus);

    // Stops the session.
    ~GnomeRemoteDesktop();
    GnomeRemoteDesktop(const GnomeRemoteDesktop&) = delete;
    GnomeRemoteDesktop& operator=(const GnomeRemoteDesktop&) = delete;

    std::uint32_t pipeWireNode() const { return node_; }
    // The monitor's size in the screen cast's coordinates.
    ScreenSize screenSize() const { return size_; }
    // The compositor closed the session, or went away.
    bool closed() const;

    // Sent in order, without waiting for the compositor.
    void movePointer(double x, double y);
    // An evdev button code (BTN_LEFT is 0x110).
    void setButton(std::int32_t button, bool pressed);
    void setKeysym(std::uint32_t keysym, bool pressed);
    // Returns once the compositor has taken everything sent before.
    void sync();

    // Offers `text` as the desktop's clipboard, until another program takes the clipboard.
    void offerText(std::string text);
    // How many times a program has pasted what was offered.
    std::uint64_t pastes() const;
    // Waits until pastes() exceeds `count`, or for `timeout`; whether it did.
    bool waitForPaste(std::uint64_t count, std::chrono::milliseconds timeout) const;
    // The desktop's clipboard, when another program holds text there.
    std::optional<std::string> readText();

  private:
    struct Shared;

    GnomeRemoteDesktop(std::shared_ptr<DBusSession> bus, std::shared_ptr<Shared> shared);

    std::shared_ptr<DBusSession> bus_;
    std::shared_ptr<Shared> shared_;
    std::string session_;
    std::string stream_;
    std::uint32_t node_ = 0;
    ScreenSize size_;
    std::vector<unsigned> subscriptions_;
};

}  // namespace velmorand
