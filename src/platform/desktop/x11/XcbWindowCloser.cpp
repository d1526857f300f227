#include "velmorand/x11/XcbWindowCloser.h"

#include <xcb/xcb.h>

#include <algorithm>
#include <string_view>

#include "XcbDisplay.h"

namespace velmorand {
namespace {

// However many windows other clients make, one request looks at no more than this many.
constexpr std::uint32_t kMaxWindows = 4096;
constexpr std::uint32_t kMaxAtoms = 1024;
// WM_CLASS is two short names; anything longer is cut here, in 32-bit units.
constexpr std::uint32_t kMaxClassUnits = 256;
// _NET_CLOSE_WINDOW's source indication: a pager or other tool, not an application.
constexpr std::uint32_t kSourceTool = 2;

char lowerAscii(char c) {
    return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return lowerAscii(x) == lowerAscii(y);
           });
}

// WM_CLASS holds the instance name and the class name, each ended by a NUL.
bool classMatches(std::string_view wmClass, const std::vector<std::string>& classes) {
    for (int part = 0; part < 2 && !wmClass.empty(); ++part) {
        const auto end = std::min(wmClass.find('\0'), wmClass.size());
        const auto name = wmClass.substr(0, end);
        if (!name.empty() && std::any_of(classes.begin(), classes.end(), [name](const auto& c) {
                return equalIgnoringCase(name, c);
            })) {
            return true;
        }
        wmClass.remove_prefix(std::min(end + 1, wmClass.size()));
    }
    return false;
}

struct Inspection {
    bool hasClass = false;
    bool shown = false;
};

// Whether each window has a class and is a mapped, managed-style window, asked all at once.
std::vector<Inspection> inspect(xcb_connection_t* c, const std::vector<xcb_window_t>& windows) {
    std::vector<std::pair<xcb_get_property_cookie_t, xcb_get_window_attributes_cookie_t>> cookies;
    cookies.reserve(windows.size());
    for (const auto window : windows) {
        cookies.emplace_back(
            xcb_get_property(c, 0, window, XCB_ATOM_WM_CLASS, XCB_ATOM_STRING, 0, 0),
            xcb_get_window_attributes(c, window));
    }
    std::vector<Inspection> inspections;
    inspections.reserve(windows.size());
    for (const auto& [propertyCookie, attributesCookie] : cookies) {
        const XcbOwned<xcb_get_property_reply_t> property(
            xcb_get_property_reply(c, propertyCookie, nullptr));
        const XcbOwned<xcb_get_window_attributes_reply_t> attributes(
            xcb_get_window_attributes_reply(c, attributesCookie, nullptr));
        inspections.push_back({property && property->type == XCB_ATOM_STRING,
                               attributes && attributes->override_redirect == 0 &&
                                   attributes->map_state != XCB_MAP_STATE_UNMAPPED});
    }
    return inspections;
}

}  // namespace

std::variant<std::unique_ptr<WindowCloser>, std::string> XcbWindowCloser::open(
    const char* displayName) {
    auto opened = XcbDisplay::open(displayName, "remote control");
    if (auto* error = std::get_if<std::string>(&opened)) {
        return std::move(*error);
    }
    auto& display = std::get<XcbDisplay>(opened);
    const auto names = XcbDisplay::internAtoms(
        display.connection.get(),
        {"WM_PROTOCOLS", "WM_DELETE_WINDOW", "_NET_SUPPORTED", "_NET_SUPPORTING_WM_CHECK",
         "_NET_CLIENT_LIST", "_NET_CLOSE_WINDOW"});
    if (std::find(names.begin(), names.end(), XCB_ATOM_NONE) != names.end()) {
        return std::string("the X server would not name the window manager's atoms");
    }
    const Atoms atoms{names[0], names[1], names[2], names[3], names[4], names[5]};
    return std::unique_ptr<WindowCloser>(
        new XcbWindowCloser(display.connection.release(), display.root, atoms));
}

XcbWindowCloser::XcbWindowCloser(xcb_connection_t* connection, std::uint32_t root,
                                 const Atoms& atoms)
    : connection_(connection), root_(root), atoms_(atoms) {}

XcbWindowCloser::~XcbWindowCloser() {
    xcb_disconnect(connection_);
}

std::optional<std::size_t> XcbWindowCloser::closeWindows(const std::vector<std::string>& classes) {
    if (classes.empty() || xcb_connection_has_error(connection_) != 0) {
        return 0;
    }
    bool managerCloses = false;
    std::optional<std::vector<std::uint32_t>> windows;
    if (windowManagerRunning()) {
        const auto supported = listProperty(root_, atoms_.netSupported, XCB_ATOM_ATOM, kMaxAtoms)
                                   .value_or(std::vector<std::uint32_t>());
        managerCloses =
            std::find(supported.begin(), supported.end(), atoms_.netCloseWindow) != supported.end();
        windows = listProperty(root_, atoms_.netClientList, XCB_ATOM_WINDOW, kMaxWindows);
    }
    if (!windows) {
        windows = walkWindows();
    }
    const auto targets = matching(*windows, classes);
    std::size_t asked = 0;
    if (managerCloses) {
        for (const auto window : targets) {
            xcb_client_message_event_t close{};
            close.response_type = XCB_CLIENT_MESSAGE;
            close.format = 32;
            close.window = window;
            close.type = atoms_.netCloseWindow;
            close.data.data32[0] = XCB_CURRENT_TIME;
            close.data.data32[1] = kSourceTool;
            XcbDisplay::sendEvent(
                connection_, root_,
                XCB_EVENT_MASK_SUBSTRUCTURE_REDIRECT | XCB_EVENT_MASK_SUBSTRUCTURE_NOTIFY, close);
            ++asked;
        }
    } else {
        std::vector<xcb_get_property_cookie_t> cookies;
        cookies.reserve(targets.size());
        for (const auto window : targets) {
            cookies.push_back(xcb_get_property(connection_, 0, window, atoms_.wmProtocols,
                                               XCB_ATOM_ATOM, 0, kMaxAtoms));
        }
        for (std::size_t i = 0; i < targets.size(); ++i) {
            const XcbOwned<xcb_get_property_reply_t> protocols(
                xcb_get_property_reply(connection_, cookies[i], nullptr));
            if (!protocols || protocols->type != XCB_ATOM_ATOM || protocols->format != 32) {
                continue;
            }
            const auto* atoms =
                static_cast<const xcb_atom_t*>(xcb_get_property_value(protocols.get()));
            const auto* end = atoms + xcb_get_property_value_length(protocols.get()) / 4;
            if (std::find(atoms, end, atoms_.wmDeleteWindow) == end) {
                continue;
            }
            xcb_client_message_event_t close{};
            close.response_type = XCB_CLIENT_MESSAGE;
            close.format = 32;
            close.window = targets[i];
            close.type = atoms_.wmProtocols;
            close.data.data32[0] = atoms_.wmDeleteWindow;
            close.data.data32[1] = XCB_CURRENT_TIME;
            XcbDisplay::sendEvent(connection_, targets[i], XCB_EVENT_MASK_NO_EVENT, close);
            ++asked;
        }
    }
    XcbDisplay::sync(connection_);
    return asked;
}

bool XcbWindowCloser::windowManagerRunning() {
    const auto check = listProperty(root_, atoms_.netSupportingWmCheck, XCB_ATOM_WINDOW, 1);
    if (!check || check->empty()) {
        return false;
    }
    // A manager that died leaves its properties on the root, naming a window that is gone.
    const auto itself =
        listProperty(check->front(), atoms_.netSupportingWmCheck, XCB_ATOM_WINDOW, 1);
    return itself && !itself->empty() && itself->front() == check->front();
}

std::optional<std::vector<std::uint32_t>> XcbWindowCloser::listProperty(std::uint32_t window,
                                                                        std::uint32_t property,
                                                                        std::uint32_t type,
                                                                        std::uint32_t maxItems) {
    const XcbOwned<xcb_get_property_reply_t> reply(xcb_get_property_reply(
        connection_, xcb_get_property(connection_, 0, window, property, type, 0, maxItems),
        nullptr));
    if (!reply || reply->type != type || reply->format != 32) {
        return std::nullopt;
    }
    const auto* items = static_cast<const std::uint32_t*>(xcb_get_property_value(reply.get()));
    const auto count = static_cast<std::size_t>(xcb_get_property_value_length(reply.get())) / 4;
    return std::vector<std::uint32_t>(items, items + std::min<std::size_t>(count, maxItems));
}

std::vector<std::uint32_t> XcbWindowCloser::walkWindows() {
    const XcbOwned<xcb_query_tree_reply_t> tree(
        xcb_query_tree_reply(connection_, xcb_query_tree(connection_, root_), nullptr));
    if (!tree) {
        return {};
    }
    const auto* children = xcb_query_tree_children(tree.get());
    const std::vector<xcb_window_t> topLevel(
        children,
        children + std::min<std::uint32_t>(
                       static_cast<std::uint32_t>(xcb_query_tree_children_length(tree.get())),
                       kMaxWindows));
    std::uint32_t budget = kMaxWindows - static_cast<std::uint32_t>(topLevel.size());
    std::vector<std::uint32_t> found;
    std::vector<xcb_window_t> unnamed;
    const auto inspected = inspect(connection_, topLevel);
    for (std::size_t i = 0; i < topLevel.size(); ++i) {
        if (!inspected[i].hasClass) {
            unnamed.push_back(topLevel[i]);
        } else if (inspected[i].shown) {
            found.push_back(topLevel[i]);
        }
    }
    std::vector<xcb_query_tree_cookie_t> cookies;
    cookies.reserve(unnamed.size());
    for (const auto window : unnamed) {
        cookies.push_back(xcb_query_tree(connection_, window));
    }
    std::vector<xcb_window_t> inner;
    for (const auto cookie : cookies) {
        const XcbOwned<xcb_query_tree_reply_t> reply(
            xcb_query_tree_reply(connection_, cookie, nullptr));
        if (!reply) {
            continue;
        }
        const auto* grandchildren = xcb_query_tree_children(reply.get());
        const auto take = std::min<std::uint32_t>(
            static_cast<std::uint32_t>(xcb_query_tree_children_length(reply.get())), budget);
        inner.insert(inner.end(), grandchildren, grandchildren + take);
        budget -= take;
    }
    const auto innerInspected = inspect(connection_, inner);
    for (std::size_t i = 0; i < inner.size(); ++i) {
        if (innerInspected[i].hasClass && innerInspected[i].shown) {
            found.push_back(inner[i]);
        }
    }
    return found;
}

std::vector<std::uint32_t> XcbWindowCloser::matching(const std::vector<std::uint32_t>& windows,
                                                     const std::vector<std::string>& classes) {
    std::vector<xcb_get_property_cookie_t> cookies;
    cookies.reserve(windows.size());
    for (const auto window : windows) {
        cookies.push_back(xcb_get_property(connection_, 0, window, XCB_ATOM_WM_CLASS,
                                           XCB_ATOM_STRING, 0, kMaxClassUnits));
    }
    std::vector<std::uint32_t> matched;
    for (std::size_t i = 0; i < windows.size(); ++i) {
        const XcbOwned<xcb_get_property_reply_t> wmClass(
            xcb_get_property_reply(connection_, cookies[i], nullptr));
        if (!wmClass || wmClass->type != XCB_ATOM_STRING || wmClass->format != 8) {
            continue;
        }
        const std::string_view value(
            static_cast<const char*>(xcb_get_property_value(wmClass.get())),
            static_cast<std::size_t>(xcb_get_property_value_length(wmClass.get())));
        if (classMatches(value, classes) &&
            std::find(matched.begin(), matched.end(), windows[i]) == matched.end()) {
            matched.push_back(windows[i]);
        }
    }
    return matched;
}

}  // namespace velmorand
