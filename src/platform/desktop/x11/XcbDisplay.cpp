#include "XcbDisplay.h"

namespace velmorand {
namespace {

constexpr std::size_t kMaxNameShown = 100;

std::string shown(const std::string& displayName) {
    return displayName.size() > kMaxNameShown ? displayName.substr(0, kMaxNameShown) + "..."
                                              : displayName;
}

}  // namespace

std::variant<XcbDisplay, std::string> XcbDisplay::open(const char* displayName,
                                                       std::string_view service) {
    std::string name;
    if (displayName != nullptr) {
        name = displayName;
    } else if (const char* fromEnvironment = std::getenv("DISPLAY");
               fromEnvironment != nullptr && *fromEnvironment != '\0') {
        name = fromEnvironment;
    } else {
        const char* wayland = std::getenv("WAYLAND_DISPLAY");
        return std::string(service) +
               (wayland != nullptr && *wayland != '\0'
                    ? " needs an X11 display (DISPLAY is not set; this is a Wayland session)"
                    : " needs an X11 display (DISPLAY is not set)");
    }
    int screenNumber = 0;
    XcbDisplay display;
    display.connection.reset(xcb_connect(name.c_str(), &screenNumber));
    if (xcb_connection_has_error(display.connection.get()) != 0) {
        return "cannot open X11 display " + shown(name);
    }
    auto screens = xcb_setup_roots_iterator(xcb_get_setup(display.connection.get()));
    for (int i = 0; screens.rem > 0; ++i, xcb_screen_next(&screens)) {
        if (i == screenNumber) {
            display.screen = screens.data;
            display.root = screens.data->root;
            return display;
        }
    }
    return "X11 display " + shown(name) + " has no screen " + std::to_string(screenNumber);
}

std::vector<xcb_atom_t> XcbDisplay::internAtoms(xcb_connection_t* connection,
                                                std::initializer_list<std::string_view> names) {
    std::vector<xcb_intern_atom_cookie_t> cookies;
    cookies.reserve(names.size());
    for (const auto name : names) {
        cookies.push_back(
            xcb_intern_atom(connection, 0, static_cast<std::uint16_t>(name.size()), name.data()));
    }
    std::vector<xcb_atom_t> atoms;
    atoms.reserve(names.size());
    for (const auto cookie : cookies) {
        const XcbOwned<xcb_intern_atom_reply_t> reply(
            xcb_intern_atom_reply(connection, cookie, nullptr));
        atoms.push_back(reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE});
    }
    return atoms;
}

void XcbDisplay::sync(xcb_connection_t* connection) {
    std::free(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
}

}  // namespace velmorand
