#pragma once

#include <poll.h>
#include <xcb/xcb.h>

#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace velmorand::testing {

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};
template <typename T>
using Owned = std::unique_ptr<T, FreeDeleter>;

// The tests' own X11 client: it makes windows, plays the other applications and reads what
// reaches them.
class XcbTestClient {
  public:
    explicit XcbTestClient(const std::string& display)
        : connection_(xcb_connect(display.c_str(), nullptr)) {}
    ~XcbTestClient() { xcb_disconnect(connection_); }
    XcbTestClient(const XcbTestClient&) = delete;
    XcbTestClient& operator=(const XcbTestClient&) = delete;

    bool connected() const { return xcb_connection_has_error(connection_) == 0; }
    xcb_connection_t* connection() const { return connection_; }
    xcb_window_t root() const {
        return xcb_setup_roots_iterator(xcb_get_setup(connection_)).data->root;
    }

    xcb_atom_t atom(std::string_view name) {
        const Owned<xcb_intern_atom_reply_t> reply(xcb_intern_atom_reply(
            connection_,
            xcb_intern_atom(connection_, 0, static_cast<std::uint16_t>(name.size()), name.data()),
            nullptr));
        return reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    }

    xcb_window_t createWindow(xcb_window_t parent, int x, int y, int width, int height,
                              std::uint32_t eventMask, bool mapped = true) {
        const xcb_window_t window = xcb_generate_id(connection_);
        xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window, parent,
                          static_cast<std::int16_t>(x), static_cast<std::int16_t>(y),
                          static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height), 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT, XCB_CW_EVENT_MASK,
                          &eventMask);
        if (mapped) {
            xcb_map_window(connection_, window);
        }
        sync();
        return window;
    }

    void setProperty(xcb_window_t window, xcb_atom_t property, xcb_atom_t type, int format,
                     const void* data, std::size_t items) {
        xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, window, property, type,
                            static_cast<std::uint8_t>(format), static_cast<std::uint32_t>(items),
                            data);
    }

    // Returns once the server has carried out everything sent so far; the events it sent
    // before are queued by then.
    void sync() {
        std::free(
            xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
    }

    // The next event, or null when none comes within `timeout`.
    Owned<xcb_generic_event_t> nextEvent(std::chrono::milliseconds timeout) {
        const auto until = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            if (auto* event = xcb_poll_for_event(connection_)) {
                return Owned<xcb_generic_event_t>(event);
            }
            const auto left = std::chrono::ceil<std::chrono::milliseconds>(
                until - std::chrono::steady_clock::now());
            if (left.count() <= 0 || !connected()) {
                return nullptr;
            }
            pollfd watched{xcb_get_file_descriptor(connection_), POLLIN, 0};
            ::poll(&watched, 1, static_cast<int>(left.count()));
        }
    }

    // Everything that has reached this client up to now.
    std::vector<Owned<xcb_generic_event_t>> queuedEvents() {
        sync();
        std::vector<Owned<xcb_generic_event_t>> events;
        while (auto* event = xcb_poll_for_event(connection_)) {
            events.emplace_back(event);
        }
        return events;
    }

  private:
    xcb_connection_t* connection_;
};

}  // namespace velmorand::testing
