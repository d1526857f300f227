#include "velmorand/x11/XcbWindowCloser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "XcbTestClient.h"
#include "Xvfb.h"

namespace velmorand {
namespace {

class XcbWindowCloserTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(xvfb_.running()) << "Xvfb did not start";
        client_.emplace(xvfb_.display());
        ASSERT_TRUE(client_->connected());
        wmProtocols_ = client_->atom("WM_PROTOCOLS");
        wmDeleteWindow_ = client_->atom("WM_DELETE_WINDOW");
        netCloseWindow_ = client_->atom("_NET_CLOSE_WINDOW");
        // Applications' windows: one answering to its instance and class names, one unrelated,
        // one that cannot be asked to close, and one inside a frame as a window manager would
        // have reparented it.
        addWindow("probe", client_->root(),
                  std::string_view("velmorand-probe\0VelmorandProbe\0", 31), true);
        addWindow("other", client_->root(), std::string_view("other\0Other\0", 12), true);
        addWindow("stubborn", client_->root(), std::string_view("stubborn\0VelmorandProbe\0", 24),
                  false);
        const xcb_window_t frame =
            client_->createWindow(client_->root(), 100, 100, 60, 60, XCB_EVENT_MASK_NO_EVENT);
        addWindow("framed", frame, std::string_view("framed\0Framed\0", 14), true);
        client_->sync();
        auto opened = XcbWindowCloser::open(xvfb_.display().c_str());
        ASSERT_TRUE(std::holds_alternative<std::unique_ptr<WindowCloser>>(opened))
            << std::get<std::string>(opened);
        closer_ = std::move(std::get<std::unique_ptr<WindowCloser>>(opened));
    }

    void addWindow(const std::string& name, xcb_window_t parent, std::string_view wmClass,
                   bool deletable) {
        const xcb_window_t window =
            client_->createWindow(parent, 10, 10, 40, 40, XCB_EVENT_MASK_NO_EVENT);
        client_->setProperty(window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 8, wmClass.data(),
                             wmClass.size());
        if (deletable) {
            client_->setProperty(window, wmProtocols_, XCB_ATOM_ATOM, 32, &wmDeleteWindow_, 1);
        }
        windows_[window] = name;
    }

    // The close requests that reached the applications, or the window manager, since last asked.
    std::vector<std::string> requests() {
        std::vector<std::string> seen;
        for (const auto& event : client_->queuedEvents()) {
            if ((event->response_type & 0x7F) != XCB_CLIENT_MESSAGE) {
                continue;
            }
            const auto* message = reinterpret_cast<const xcb_client_message_event_t*>(event.get());
            const auto name = windows_.find(message->window);
            const std::string window = name != windows_.end() ? name->second : "unknown";
            if (message->type == wmProtocols_ && message->data.data32[0] == wmDeleteWindow_) {
                seen.push_back("delete " + window);
            } else if (message->type == netCloseWindow_) {
                seen.push_back("manager closes " + window);
            }
        }
        std::sort(seen.begin(), seen.end());
        return seen;
    }

    // Plays a window manager that offers _NET_CLOSE_WINDOW and lists `clients`: the requests
    // meant for it come to this client.
    void manage(const std::vector<xcb_window_t>& clients) {
        auto* c = client_->connection();
        const xcb_window_t check =
            client_->createWindow(client_->root(), -10, -10, 1, 1, XCB_EVENT_MASK_NO_EVENT, false);
        const xcb_atom_t wmCheck = client_->atom("_NET_SUPPORTING_WM_CHECK");
        client_->setProperty(client_->root(), wmCheck, XCB_ATOM_WINDOW, 32, &check, 1);
        client_->setProperty(check, wmCheck, XCB_ATOM_WINDOW, 32, &check, 1);
        client_->setProperty(client_->root(), client_->atom("_NET_SUPPORTED"), XCB_ATOM_ATOM, 32,
                             &netCloseWindow_, 1);
        client_->setProperty(client_->root(), client_->atom("_NET_CLIENT_LIST"), XCB_ATOM_WINDOW,
                             32, clients.data(), clients.size());
        const std::uint32_t redirect = XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT;
        xcb_change_window_attributes(c, client_->root(), XCB_CW_EVENT_MASK, &redirect);
        client_->sync();
    }

    xcb_window_t windowNamed(const std::string& name) const {
        for (const auto& [window, windowName] : windows_) {
            if (windowName == name) {
                return window;
            }
        }
        return XCB_NONE;
    }

    testing::Xvfb xvfb_{320, 240};
    std::optional<testing::XcbTestClient> client_;
    std::unique_ptr<WindowCloser> closer_;
    xcb_atom_t wmProtocols_ = XCB_ATOM_NONE;
    xcb_atom_t wmDeleteWindow_ = XCB_ATOM_NONE;
    xcb_atom_t netCloseWindow_ = XCB_ATOM_NONE;
    std::map<xcb_window_t, std::string> windows_;
};

struct Case {
    std::vector<std::string> classes;
    std::size_t asked;
    std::vector<std::string> requests;
};

TEST_F(XcbWindowCloserTest, AsksWindowsOfTheNamedClassesToClose) {
    const Case cases[] = {
        {{"VELMORANDPROBE"}, 1, {"delete probe"}},
        {{"Velmorand-Probe"}, 1, {"delete probe"}},
        {{"unrelated", "velmorand"}, 0, {}},
        {{"other", "framed"}, 2, {"delete framed", "delete other"}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(closer_->closeWindows(c.classes), c.asked) << c.classes.front();
        EXPECT_EQ(requests(), c.requests) << c.classes.front();
    }
}

TEST_F(XcbWindowCloserTest, LeavesClosingToTheWindowManagerThatOffersIt) {
    manage({windowNamed("probe"), windowNamed("other")});
    const Case cases[] = {
        {{"velmorandprobe"}, 1, {"manager closes probe"}},
        {{"framed"}, 0, {}},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(closer_->closeWindows(c.classes), c.asked) << c.classes.front();
        EXPECT_EQ(requests(), c.requests) << c.classes.front();
    }
}

}  // namespace
}  // namespace velmorand
