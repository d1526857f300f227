#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "velmorand/portal/PortalResponse.h"
#include "velmorand/wayland/RemoteDesktopSession.h"

namespace velmorand {

class DBusSession;

// A screen cast, with the keyboard and pointer when asked for, granted by the desktop portal
// (xdg-desktop-portal): any Wayland desktop that has one, KDE's among them. The person at the
// device is asked in a dialog of the desktop's; a screen cast alone can be remembered (the grant's
// restore token, given back at the next start, skips the question where the portal keeps grants),
// input cannot with every portal (1.16's does not keep it). The desktop's clipboard is out of
// reach here. Any thread.
class PortalRemoteDesktop : public RemoteDesktopSession {
  public:
    struct Options {
        // The keyboard and pointer too, not the screen alone.
        bool input = false;
        std::optional<std::string> restoreToken;
        // How long the person at the device has to answer.
        std::chrono::seconds consentTimeout{120};
    };

    // Why this session bus has no portal to ask; absent when it has.
    static std::optional<std::string> unavailable(DBusSession& bus, bool input);
    // Asks the portal (and, through it, the person at the device), waiting for the answer.
    static std::variant<std::shared_ptr<PortalRemoteDesktop>, SessionDenied> open(
        std::shared_ptr<DBusSession> bus, const Options& options);

    // Closes the session.
    ~PortalRemoteDesktop() override;
    PortalRemoteDesktop(const PortalRemoteDesktop&) = delete;
    PortalRemoteDesktop& operator=(const PortalRemoteDesktop&) = delete;

    const PortalGrant& grant() const { return grant_; }
    bool inputGranted() const { return (grant_.devices & 3U) == 3U; }
    // A connection to PipeWire on which only this session's stream is seen, or -1.
    int openPipeWireRemote();

    ScreenSize screenSize() const override { return grant_.size; }
    // The portal closes a session when the person at the device stops sharing it (a compositor
    // that restarts ends the person's whole session, the portal's with it).
    SessionEnd ended() const override;
    void movePointer(double x, double y) override;
    void setButton(std::int32_t button, bool pressed) override;
    void setKeysym(std::uint32_t keysym, bool pressed) override;
    void sync() override;
    // The compositor's own wait (see GnomeRemoteDesktop), and the portal's relay on top.
    std::chrono::milliseconds pointerSettle() const override {
        return std::chrono::milliseconds(150);
    }
    bool hasClipboard() const override { return false; }
    void offerText(std::string) override {}
    std::uint64_t pastes() const override { return 0; }
    bool waitForPaste(std::uint64_t, std::chrono::milliseconds) const override { return false; }
    std::optional<std::string> readText() override { return std::nullopt; }

  private:
    struct Shared;

    PortalRemoteDesktop(std::shared_ptr<DBusSession> bus, std::string portal);
    // One input event, passed on before the next is sent.
    void notify(const char* method, GVariant* arguments);

    std::shared_ptr<DBusSession> bus_;
    // The portal's unique name on the bus.
    std::string portal_;
    std::shared_ptr<Shared> shared_;
    std::string session_;
    PortalGrant grant_;
    std::vector<unsigned> subscriptions_;
    // An event went unanswered: those after it are dropped until a sync is answered.
    std::atomic<bool> stalled_{false};
};

}  // namespace velmorand
