// Which windows of an application are asked to close: the classes its desktop entry declares,
// and the windows of those classes the X11 closer finds on a private Xvfb.
#include "velmorand/x11/XcbWindowCloser.h"

#include <gtest/gtest.h>
#include <xcb/xcb.h>

#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "ScopedEnv.h"
#include "SpawnedServer.h"
#include "TempDir.h"
#include "XClient.h"
#include "velmorand/gio/GioDesktopShell.h"

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
class Desktop : public testing::XClient {
  public:
    using XClient::XClient;

    xcb_window_t create(const Window& w) {
        xcb_window_t parent = root;
        if (w.framed) {
            parent = window(root, false);
            xcb_map_window(connection, parent);
        }
        const xcb_window_t id = window(parent, w.overrideRedirect);
        if (!w.wmClass.empty()) {
            xcb_change_property(connection, XCB_PROP_MODE_REPLACE, id, XCB_ATOM_WM_CLASS,
                                XCB_ATOM_STRING, 8, w.wmClass.size(), w.wmClass.data());
        }
        const xcb_atom_t protocols[] = {w.takesDelete ? atom("WM_DELETE_WINDOW")
                                                      : xcb_atom_t{XCB_ATOM_NONE}};
        xcb_change_property(connection, XCB_PROP_MODE_REPLACE, id, atom("WM_PROTOCOLS"),
                            XCB_ATOM_ATOM, 32, 1, protocols);
        if (w.mapped) {
            xcb_map_window(connection, id);
        }
        return id;
    }

    void setWindows(xcb_window_t on, const char* property, std::vector<xcb_window_t> windows,
                    xcb_atom_t type = XCB_ATOM_WINDOW) {
        xcb_change_property(connection, XCB_PROP_MODE_REPLACE, on, atom(property), type, 32,
                            windows.size(), windows.data());
    }

    // Becomes the window manager: it names itself on the root, lists `clients` and, if it
    // closes windows itself, receives the requests to.
    void manage(std::vector<xcb_window_t> clients, bool closesWindows, bool alive = true) {
        const xcb_window_t check = window(root, true);
        setWindows(root, "_NET_SUPPORTING_WM_CHECK", {check});
        if (alive) {
            setWindows(check, "_NET_SUPPORTING_WM_CHECK", {check});
        }
        setWindows(root, "_NET_SUPPORTED",
                   {closesWindows ? atom("_NET_CLOSE_WINDOW") : atom("WM_PROTOCOLS")},
                   XCB_ATOM_ATOM);
        setWindows(root, "_NET_CLIENT_LIST", std::move(clients));
        const std::uint32_t mask = XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT;
        xcb_change_window_attributes(connection, root, XCB_CW_EVENT_MASK, &mask);
        sync();
    }

    // Every close request that reached us: the window it names, and how it was asked.
    std::map<xcb_window_t, std::string> requests() {
        sync();
        std::map<xcb_window_t, std::string> seen;
        while (const auto event = owned(xcb_poll_for_event(connection))) {
            const auto* message = reinterpret_cast<xcb_client_message_event_t*>(event.get());
            const bool isMessage = (event->response_type & 0x7F) == XCB_CLIENT_MESSAGE;
            if (isMessage && message->type == atom("WM_PROTOCOLS") &&
                message->data.data32[0] == atom("WM_DELETE_WINDOW")) {
                seen[message->window] = "WM_DELETE_WINDOW";
            } else if (isMessage && message->type == atom("_NET_CLOSE_WINDOW")) {
                seen[message->window] =
                    "_NET_CLOSE_WINDOW from source " + std::to_string(message->data.data32[1]);
            }
        }
        return seen;
    }

  private:
    xcb_window_t window(xcb_window_t parent, bool overrideRedirect) {
        const xcb_window_t id = xcb_generate_id(connection);
        const std::uint32_t values[] = {overrideRedirect ? 1u : 0u};
        xcb_create_window(connection, XCB_COPY_FROM_PARENT, id, parent, 0, 0, 16, 16, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, XCB_COPY_FROM_PARENT,
                          XCB_CW_OVERRIDE_REDIRECT, values);
        return id;
    }
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

using Classes = std::optional<std::vector<std::string>>;

// kill_app closes an application's windows by the classes its desktop entry declares, beside
// the entry's own name; GLib reads the data directories once, so each test sets them first.
TEST(GioDesktopShellTest, AnEntryDeclaresTheWindowClassesOfItsApplication) {
    testing::TempDir data;
    std::filesystem::create_directories(data.path() / "applications");
    const auto entry = [&](const char* id, const char* extra) {
        std::ofstream(data.path() / "applications" / id)
            << "[Desktop Entry]\nType=Application\nName=" << id << "\nExec=true\n"
            << extra;
    };
    entry("org.example.Editor.desktop", "StartupWMClass=editor-main\n");
    entry("org.example.Plain.desktop", "");
    entry("org.example.Blank.desktop", "StartupWMClass=\n");
    const testing::ScopedEnv home("XDG_DATA_HOME", data.path().c_str());
    const testing::ScopedEnv dirs("XDG_DATA_DIRS", data.path().c_str());

    const std::pair<const char*, Classes> cases[] = {
        {"org.example.Editor.desktop", std::vector<std::string>{"editor-main"}},
        {"org.example.Plain.desktop", std::vector<std::string>{}},
        {"org.example.Blank.desktop", std::vector<std::string>{}},
        {"org.example.Missing.desktop", std::nullopt},
    };
    GioDesktopShell shell;
    for (const auto& [id, classes] : cases) {
        EXPECT_EQ(shell.windowClasses(id), classes) << id;
    }
}

}  // namespace
}  // namespace velmorand
