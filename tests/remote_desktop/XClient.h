#pragma once

#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

namespace velmorand::testing {

// Another client of a test's private X server, which sets up and reads back what the X11
// backends find and leave there.
class XClient {
  public:
    explicit XClient(const std::string& display)
        : connection(xcb_connect(display.c_str(), nullptr)),
          setup(xcb_get_setup(connection)),
          root(xcb_setup_roots_iterator(setup).data->root) {}
    ~XClient() { xcb_disconnect(connection); }
    XClient(const XClient&) = delete;
    XClient& operator=(const XClient&) = delete;

    struct Free {
        void operator()(void* reply) const { std::free(reply); }
    };
    // A reply xcb allocated, freed with it.
    template <typename Reply>
    static std::unique_ptr<Reply, Free> owned(Reply* reply) {
        return std::unique_ptr<Reply, Free>(reply);
    }

    // XCB_ATOM_NONE when the server did not answer.
    xcb_atom_t atom(const char* name) {
        const auto reply = owned(xcb_intern_atom_reply(
            connection, xcb_intern_atom(connection, 0, std::strlen(name), name), nullptr));
        return reply ? reply->atom : xcb_atom_t{XCB_ATOM_NONE};
    }

    // Returns once the server has carried out every request sent before: a round trip.
    void sync() {
        owned(xcb_get_input_focus_reply(connection, xcb_get_input_focus(connection), nullptr));
    }

    xcb_connection_t* const connection;
    const xcb_setup_t* const setup;
    const xcb_window_t root;
};

}  // namespace velmorand::testing
