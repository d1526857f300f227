#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "velmorand/platform/ScreenCapture.h"
#include "velmorand/wayland/RemoteDesktopSession.h"

namespace velmorand {

class DBusSession;

// One remote-desktop session of GNOME's compositor (mutter), with a screen cast of the primary
// monitor tied to it: the compositor's own D-Bus interfaces, which the desktop's own remote
// desktop service uses and which ask nobody for consent, so that an unattended device works.
// Input goes in the screen cast's coordinates; the clipboard through the session's selection.
// The compositor ends the session when this process goes, however it ends. Any thread.
class GnomeRemoteDesktop : public RemoteDesktopSession {
  public:
    static constexpr const char* kBusName = "org.gnome.Mutter.RemoteDesktop";

    // Why this session bus has no compositor remote desktop to open; absent when it has.
    static std::optional<std::string> unavailable(DBusSession& bus);
    // Starts a session and waits for its screen cast's PipeWire node, or says why it could not.
    static std::variant<std::shared_ptr<GnomeRemoteDesktop>, std::string> open(
        std::shared_ptr<DBusSession> bus);

    // Stops the session.
    ~GnomeRemoteDesktop() override;
    GnomeRemoteDesktop(const GnomeRemoteDesktop&) = delete;
    GnomeRemoteDesktop& operator=(const GnomeRemoteDesktop&) = delete;

    std::uint32_t pipeWireNode() const { return node_; }

    ScreenSize screenSize() const override { return size_; }
    // A close that came while the compositor stayed is the person's (GNOME's "Stop sharing"); it
    // is told from a compositor leaving at most a second after the close.
    SessionEnd ended() const override;
    void movePointer(double x, double y) override;
    void setButton(std::int32_t button, bool pressed) override;
    void setKeysym(std::uint32_t keysym, bool pressed) override;
    void sync() override;
    // Seen with mutter 43: a click right after the pointer entered a window reached it as a
    // release alone, and under load 20 ms was not always enough.
    std::chrono::milliseconds pointerSettle() const override {
        return std::chrono::milliseconds(60);
    }
    bool hasClipboard() const override { return true; }
    void offerText(std::string text) override;
    std::uint64_t pastes() const override;
    bool waitForPaste(std::uint64_t count, std::chrono::milliseconds timeout) const override;
    std::optional<std::string> readText() override;

  private:
    struct Shared;

    GnomeRemoteDesktop(std::shared_ptr<DBusSession> bus, std::shared_ptr<Shared> shared);

    std::shared_ptr<DBusSession> bus_;
    std::shared_ptr<Shared> shared_;
    // The compositor's unique name on the bus.
    std::string compositor_;
    std::string session_;
    std::string stream_;
    std::uint32_t node_ = 0;
    ScreenSize size_;
    std::vector<unsigned> subscriptions_;
};

}  // namespace velmorand
