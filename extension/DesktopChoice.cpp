#include "velmorand/extension/DesktopChoice.h"

namespace velmorand::extension {

std::string backendName(DesktopBackend backend) {
    switch (backend) {
        case DesktopBackend::x11:
            return "X11";
        case DesktopBackend::gnome:
            return "GNOME";
        case DesktopBackend::portal:
            return "the desktop portal";
    }
    return "?";
}

std::variant<std::vector<DesktopBackend>, std::string> backendsFor(const DesktopFacts& facts) {
    const std::string forced = facts.forced.value_or("");
    if (forced == "x11") {
        return std::vector{DesktopBackend::x11};
    }
    if (forced == "gnome") {
        return std::vector{DesktopBackend::gnome};
    }
    if (forced == "portal") {
        return std::vector{DesktopBackend::portal};
    }
    if (!forced.empty() && forced != "auto") {
        return "unknown desktop \"" + forced + "\": choose x11, gnome, portal or auto";
    }
    if (facts.sessionType == "wayland" || facts.waylandDisplay) {
        return std::vector{DesktopBackend::gnome, DesktopBackend::portal};
    }
    if (facts.x11Display) {
        return std::vector{DesktopBackend::x11};
    }
    return std::string(
        "no desktop to capture: neither a Wayland session (XDG_SESSION_TYPE, WAYLAND_DISPLAY) nor "
        "an X11 display (DISPLAY)");
}

}  // namespace velmorand::extension
