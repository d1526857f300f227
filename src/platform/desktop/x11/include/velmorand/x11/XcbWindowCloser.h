#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "velmorand/platform/WindowCloser.h"

struct xcb_connection_t;

namespace velmorand {

// Asks top-level windows on an X11 display to close: through the window manager's
// _NET_CLOSE_WINDOW when it offers one, else with the window's own WM_DELETE_WINDOW. A window
// that takes neither is left alone.
class XcbWindowCloser : public WindowCloser {
  public:
    // `displayName` as X11 spells it (":0"); nullptr takes $DISPLAY.
    static std::variant<std::unique_ptr<WindowCloser>, std::string> open(const char* displayName);

    ~XcbWindowCloser() override;
    XcbWindowCloser(const XcbWindowCloser&) = delete;
    XcbWindowCloser& operator=(const XcbWindowCloser&) = delete;

    std::optional<std::size_t> closeWindows(const std::vector<std::string>& classes) override;

  private:
    struct Atoms {
        std::uint32_t wmProtocols = 0;
        std::uint32_t wmDeleteWindow = 0;
        std::uint32_t netSupported = 0;
        std::uint32_t netSupportingWmCheck = 0;
        std::uint32_t netClientList = 0;
        std::uint32_t netCloseWindow = 0;
    };

    XcbWindowCloser(xcb_connection_t* connection, std::uint32_t root, const Atoms& atoms);

    // The window manager's own check window, which names itself, shows it is still running.
    bool windowManagerRunning();
    // A property of 32-bit items; absent when the window lacks it or it is of another type.
    std::optional<std::vector<std::uint32_t>> listProperty(std::uint32_t window,
                                                           std::uint32_t property,
                                                           std::uint32_t type,
                                                           std::uint32_t maxItems);
    // Top-level windows as the window manager lists them; absent when it does not.
    std::optional<std::vector<std::uint32_t>> managedWindows();
    // Without a window manager: the root's children that show a class, and for those that do
    // not, their own children (a frame's client).
    std::vector<std::uint32_t> walkWindows();
    std::vector<std::uint32_t> matching(const std::vector<std::uint32_t>& windows,
                                        const std::vector<std::string>& classes);

    xcb_connection_t* connection_;
    std::uint32_t root_;
    Atoms atoms_;
};

}  // namespace velmorand
