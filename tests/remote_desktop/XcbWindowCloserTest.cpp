#include "velmorand/x11/XcbWindowCloser.h"

#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "SpawnedServer.h"

namespace velmorand {
namespace {

struct Window {
    std::string_view wmClass;  // instance and class, each ended by a NUL; empty: none
    bool takesDelete = true;   // WM_DELETE_WINDOW among its WM_PROTOCOLS
    bool mapped = true;
    bool overrideRedirect = false;
    bool framed = false;  // inside an unnamed top-level frame, as a reparenting manager puts it
    bool asked = false;   // expected: asked to close
    const char* what = "";
};

// The applications' side of the display, and a window manager when a test wants one.
class Desktop {
  public:
    explicit Desktop(const std::string& display)
        : connection_(xcb_connect(display.c_str(), nullptr)) {
        root_ = xcb_setup_roots_iterator(xcb_get_setup(connection_)).data->root;
        for (const char* name :
             {"WM_PROTOCOLS", "WM_DELETE_WINDOW", "_NET_SUPPORTED", "_NET_SUPPORTING_WM_CHECK",
              "_NET_CLIENT_LIST", "_NET_CLOSE_WINDOW"}) {
            auto* reply = xcb_intern_atom_reply(
                connection_, xcb_intern_atom(connection_, 0, std::strlen(name), name), nullptr);
            atoms_[name] = reply->atom;
            free(reply);
        }
    }
    ~Desktop() { xcb_disconnect(connection_); }
    Desktop(const Desktop&) = delete;
    Desktop& operator=(const Desktop&) = delete;

    xcb_atom_t atom(const char* name) { return atoms_.at(name); }

    xcb_window_t create(const Window& w) {
        xcb_window_t parent = root_;
        if (w.framed) {
            parent = window(root_, false);
            xcb_map_window(connection_, parent);
        }
        const xcb_window_t id = window(parent, w.overrideRedirect);
        if (!w.wmClass.empty()) {
            xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, id, XCB_ATOM_WM_CLASS,
                                XCB_ATOM_STRING, 8, w.wmClass.size(), w.wmClass.data());
        }
        const xcb_atom_t protocols[] = {w.takesDelete ? atom("WM_DELETE_WINDOW")
                                                      : xcb_atom_t{XCB_ATOM_NONE}};
        xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, id, atom("WM_PROTOCOLS"),
                            XCB_ATOM_ATOM, 32, 1, protocols);
        if (w.mapped) {
            xcb_map_window(connection_, id);
        }
        return id;
    }

    void setWindows(xcb_window_t on, const char* property, std::vector<xcb_window_t> windows,
                    xcb_atom_t type = XCB_ATOM_WINDOW) {
        xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, on, atom(property), type, 32,
                            windows.size(), windows.data());
    }

    // Becomes the window manager: it names itself on the root, lists `clients` and, if it
    // closes windows itself, receives the requests to.
    void manage(std::vector<xcb_window_t> clients, bool closesWindows, bool alive = true) {
        const xcb_window_t check = window(root_, true);
        setWindows(root_, "_NET_SUPPORTING_WM_CHECK", {check});
        if (alive) {
            setWindows(check, "_NET_SUPPORTING_WM_CHECK", {check});
        }
        setWindows(root_, "_NET_SUPPORTED",
                   {closesWindows ? atom("_NET_CLOSE_WINDOW") : atom("WM_PROTOCOLS")},
                   XCB_ATOM_ATOM);
        setWindows(root_, "_NET_CLIENT_LIST", std::move(clients));
        const std::uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT;
        xcb_change_window_attributes(connection_, root_, XCB_CW_EVENT_MASK, &mask);
        sync();
    }

    void sync() {
        free(xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
    }

    // Every close request that reached us: the window it names, and how it was asked.
    std::map<xcb_window_t, std::string> requests() {
        sync();
        std::map<xcb_window_t, std::string> seen;
        while (xcb_generic_event_t* event = xcb_poll_for_event(connection_)) {
            if ((event->response_type & 0x7F) == XCB_CLIENT_MESSAGE) {
                const auto* message = reinterpret_cast<xcb_client_message_event_t*>(event);
                if (message->type == atom("WM_PROTOCOLS") &&
                    message->data.data32[0] == atom("WM_DELETE_WINDOW")) {
                    seen[message->window] = "WM_DELETE_WINDOW";
                } else if (message->type == atom("_NET_CLOSE_WINDOW")) {
                    seen[message->window] =
                        "_NET_CLOSE_WINDOW from source " + std::to_string(message->data.data32[1]);
                }
            }
            free(event);
        }
        return seen;
    }

  private:
    xcb_window_t window(xcb_window_t parent, bool overrideRedirect) {
        const xcb_window_t id = xcb_generate_id(connection_);
        const std::uint32_t values[] = {overrideRedirect ? 1u : 0u};
        xcb_create_window(connection_, XCB_COPY_FROM_PARENT, id, parent, 0, 0, 16, 16, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
                          XCB_CW_OVERRIDE_REDIRECT, values);
        return id;
    }

    xcb_connection_t* connection_;
    xcb_window_t root_ = 0;
    std::map<std::string, xcb_atom_t> atoms_;
};

using namespace std::string_view_literals;

class XcbWindowCloserTest : public ::testing::Test {
  protected:
    void SetUp() override {
        if (server_.display().empty()) {
            GTEST_SKIP() << "Xvfb would not start";
        }
        desktop_ = std::make_unique<Desktop>(server_.display());
        auto opened = XcbWindowCloser::open(server_.display().c_str());
        ASSERT_TRUE(std::holds_alternative<std::unique_ptr<WindowCloser>>(opened));
        closer_ = std::move(std::get<std::unique_ptr<WindowCloser>>(opened));
    }

    testing::PrivateXServer server_;
    std::unique_ptr<Desktop> desktop_;
    std::unique_ptr<WindowCloser> closer_;
};

TEST_F(XcbWindowCloserTest, WithoutAManagerEachShownWindowOfTheAppIsAskedThatTakesIt) {
    const Window windows[] = {
        {"editor\0Other\0"sv, true, true, false, false, true, "instance name"},
        {"main\0EDITOR\0"sv, true, true, false, false, true, "class name, any case"},
        {"editor\0Editor\0"sv, true, true, false, true, true, "inside an unnamed frame"},
        {"editor\0Editor\0"sv, false, true, false, false, false, "no WM_DELETE_WINDOW"},
        {"editor\0Editor\0"sv, true, false, false, false, false, "unmapped"},
        {"editor\0Editor\0"sv, true, true, true, false, false, "override-redirect"},
        {"editorial\0Editorial\0"sv, true, true, false, false, false, "a longer name"},
        {"notes\0Notes\0"sv, true, true, false, false, false, "another application"},
        {""sv, true, true, false, false, false, "no WM_CLASS"},
    };
    std::map<xcb_window_t, const Window*> created;
    for (const auto& w : windows) {
        created[desktop_->create(w)] = &w;
    }
    desktop_->sync();

    EXPECT_EQ(closer_->closeWindows({"Editor"}), 3u);
    const auto requests = desktop_->requests();
    for (const auto& [id, w] : created) {
        EXPECT_EQ(requests.count(id) == 1, w->asked) << w->what;
    }
    EXPECT_EQ(closer_->closeWindows({}), 0u) << "no class names no window";
}

TEST(XcbWindowCloserManagerTest, AManagerIsAskedForItsListedClientsOrTheWindowsThemselves) {
    struct Case {
        bool closesWindows;
        bool alive;
        const char* expected;  // how the listed editor window is asked
        bool unlistedAsked;    // the editor window the manager does not list
        const char* what;
    };
    const Case cases[] = {
        {true, true, "_NET_CLOSE_WINDOW from source 2", false, "the manager closes"},
        {false, true, "WM_DELETE_WINDOW", false, "the manager only lists"},
        {true, false, "WM_DELETE_WINDOW", true, "a dead manager's properties are ignored"},
    };
    for (const auto& c : cases) {
        testing::PrivateXServer server;
        ASSERT_FALSE(server.display().empty());
        Desktop desktop(server.display());
        const xcb_window_t listed = desktop.create({"editor\0Editor\0"sv});
        const xcb_window_t unlisted = desktop.create({"editor\0Editor\0"sv});
        const xcb_window_t other = desktop.create({"notes\0Notes\0"sv});
        desktop.manage({listed, other}, c.closesWindows, c.alive);
        auto closer = std::get<std::unique_ptr<WindowCloser>>(
            XcbWindowCloser::open(server.display().c_str()));

        EXPECT_EQ(closer->closeWindows({"editor"}), c.unlistedAsked ? 2u : 1u) << c.what;
        const auto requests = desktop.requests();
        EXPECT_EQ(requests.count(listed) ? requests.at(listed) : "", c.expected) << c.what;
        EXPECT_EQ(requests.count(unlisted), c.unlistedAsked ? 1u : 0u) << c.what;
        EXPECT_EQ(requests.count(other), 0u) << c.what;
    }
}

}  // namespace
}  // namespace velmorand
