#pragma once

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace velmorand {

struct XcbFree {
    void operator()(void* memory) const { std::free(memory); }
};
// XCB hands out replies, events and errors allocated with malloc.
template <typename T>
using XcbOwned = std::unique_ptr<T, XcbFree>;

struct XcbDisconnect {
    void operator()(xcb_connection_t* connection) const { xcb_disconnect(connection); }
};

// A connection of one service's own to an X11 display, and that display's default screen.
struct XcbDisplay {
    std::unique_ptr<xcb_connection_t, XcbDisconnect> connection;
    const xcb_screen_t* screen = nullptr;  // lives as long as the connection
    xcb_window_t root = XCB_NONE;

    // `displayName` as X11 spells it (":0"); nullptr takes $DISPLAY. `service` names what needs
    // the display ("screen capture") in the errors, which are shown to users as they stand.
    static std::variant<XcbDisplay, std::string> open(const char* displayName,
                                                      std::string_view service);

    // Interned in one round trip; XCB_ATOM_NONE for any the server would not intern.
    static std::vector<xcb_atom_t> internAtoms(xcb_connection_t* connection,
                                               std::initializer_list<std::string_view> names);
    // Returns once the server has carried out everything sent before.
    static void sync(xcb_connection_t* connection);
    // SendEvent takes every event as 32 bytes, whatever its own size.
    template <typename Event>
    static void sendEvent(xcb_connection_t* connection, xcb_window_t destination,
                          std::uint32_t eventMask, const Event& event) {
        static_assert(sizeof(Event) <= 32);
        char wire[32] = {};
        std::memcpy(wire, &event, sizeof event);
        xcb_send_event(connection, 0, destination, eventMask, wire);
    }
};

}  // namespace velmorand
