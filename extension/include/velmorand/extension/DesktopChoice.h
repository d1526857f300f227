#pragma once

#include <optional>
#include <string>
#include <variant>
#include <vector>

namespace velmorand::extension {

// The ways this program can capture and operate a desktop.
enum class DesktopBackend {
    x11,     // an X11 display: XCB capture, XTEST input
    gnome,   // GNOME's Wayland compositor, through its own remote-desktop interfaces
    portal,  // any Wayland desktop with the screen-cast and remote-desktop portals
};

// "X11", "GNOME", "the desktop portal".
std::string backendName(DesktopBackend backend);

// What decides the backend: the person's choice (the --desktop option, else VELMORAND_DESKTOP;
// "auto" or empty for none), and what the session says of itself.
struct DesktopFacts {
    std::optional<std::string> forced;
    // XDG_SESSION_TYPE.
    std::string sessionType;
    bool waylandDisplay = false;
    bool x11Display = false;
};

// The backends to try, best first: the forced one alone; in a Wayland session the compositor's
// own interfaces, then the portals, never X11 (an X display there is Xwayland, which shows and
// takes input for its few X clients only); else X11. Or, in a line the person can act on, why
// there is none.
std::variant<std::vector<DesktopBackend>, std::string> backendsFor(const DesktopFacts& facts);

}  // namespace velmorand::extension
