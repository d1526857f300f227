#include "velmorand/x11/XcbClipboard.h"

#include <xcb/xcb.h>

#include <algorithm>
#include <chrono>
#include <vector>

#include "XcbDisplay.h"

namespace velmorand {
namespace {

// How long setString waits for the server to hand over the clipboard.
constexpr auto kOwnershipWait = std::chrono::seconds(1);
// What a ChangeProperty request takes beside its data, big-request length included.
constexpr std::uint64_t kPropertyRequestBytes = 28;

// ICCCM's STRING is Latin-1: texts with nothing beyond U+00FF are offered as STRING too.
std::optional<std::string> latin1(std::string_view utf8) {
    std::string converted;
    converted.reserve(utf8.size());
    for (std::size_t i = 0; i < utf8.size(); ++i) {
        const auto byte = static_cast<unsigned char>(utf8[i]);
        if (byte < 0x80) {
            converted.push_back(static_cast<char>(byte));
            continue;
        }
        if ((byte == 0xC2 || byte == 0xC3) && i + 1 < utf8.size()) {
            const auto next = static_cast<unsigned char>(utf8[i + 1]);
            if ((next & 0xC0) == 0x80) {
                converted.push_back(static_cast<char>(((byte & 0x03) << 6) | (next & 0x3F)));
                ++i;
                continue;
            }
        }
        return std::nullopt;
    }
    return converted;
}

// Server time in milliseconds wraps about every 49 days.
bool notBefore(std::uint32_t time, std::uint32_t reference) {
    return static_cast<std::int32_t>(time - reference) >= 0;
}

}  // namespace

std::variant<std::unique_ptr<Pasteboard>, std::string> XcbClipboard::open(const char* displayName) {
    auto opened = XcbDisplay::open(displayName, "remote control");
    if (auto* error = std::get_if<std::string>(&opened)) {
        return std::move(*error);
    }
    auto& display = std::get<XcbDisplay>(opened);
    auto* c = display.connection.get();
    const auto names = XcbDisplay::internAtoms(
        c, {"CLIPBOARD", "TARGETS", "TIMESTAMP", "UTF8_STRING", "TEXT", "text/plain;charset=utf-8",
            "_VELMORAND_CLIPBOARD_STAMP", "_VELMORAND_CLIPBOARD_STOP"});
    if (std::find(names.begin(), names.end(), XCB_ATOM_NONE) != names.end()) {
        return std::string("the X server would not name the clipboard's formats");
    }
    const Atoms atoms{names[0], names[1], names[2], names[3],
                      names[4], names[5], names[6], names[7]};
    const xcb_window_t window = xcb_generate_id(c);
    // Never shown; its own property changes are what tell the server's time.
    const std::uint32_t values[] = {1, XCB_EVENT_MASK_PROPERTY_CHANGE};
    const XcbOwned<xcb_generic_error_t> refused(xcb_request_check(
        c, xcb_create_window_checked(c, XCB_COPY_FROM_PARENT, window, display.root, -1, -1, 1, 1, 0,
                                     XCB_WINDOW_CLASS_INPUT_ONLY, XCB_COPY_FROM_PARENT,
                                     XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values)));
    if (refused || xcb_connection_has_error(c) != 0) {
        return std::string("the X server would not make a window to hold the clipboard");
    }
    return std::unique_ptr<Pasteboard>(
        new XcbClipboard(display.connection.release(), window, atoms));
}

XcbClipboard::XcbClipboard(xcb_connection_t* connection, std::uint32_t window, const Atoms& atoms)
    : connection_(connection),
      window_(window),
      atoms_(atoms),
      maxRequestBytes_(std::uint64_t{xcb_get_maximum_request_length(connection)} * 4) {
    thread_ = std::thread([this] { serve(); });
}

XcbClipboard::~XcbClipboard() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    xcb_client_message_event_t stop{};
    stop.response_type = XCB_CLIENT_MESSAGE;
    stop.format = 32;
    stop.window = window_;
    stop.type = atoms_.stop;
    XcbDisplay::sendEvent(connection_, window_, XCB_EVENT_MASK_NO_EVENT, stop);
    xcb_flush(connection_);
    thread_.join();
    xcb_disconnect(connection_);
}

void XcbClipboard::setString(std::string_view text) {
    auto offer = std::make_shared<const Offer>(Offer{std::string(text), latin1(text)});
    std::uint64_t ticket = 0;
    {
        std::lock_guard lock(mutex_);
        offer_ = std::move(offer);
        ticket = ++asked_;
    }
    // ICCCM wants the selection taken at a real server time, not CurrentTime: appending
    // nothing to a property of our own window brings back a PropertyNotify carrying one.
    xcb_change_property(connection_, XCB_PROP_MODE_APPEND, window_, atoms_.stamp, XCB_ATOM_STRING,
                        8, 0, nullptr);
    xcb_flush(connection_);
    std::unique_lock lock(mutex_);
    changed_.wait_for(lock, kOwnershipWait, [&] { return granted_ >= ticket || ended_; });
}

void XcbClipboard::serve() {
    while (const XcbOwned<xcb_generic_event_t> event{xcb_wait_for_event(connection_)}) {
        switch (event->response_type & 0x7F) {
            case XCB_CLIENT_MESSAGE: {
                const auto* message =
                    reinterpret_cast<const xcb_client_message_event_t*>(event.get());
                std::lock_guard lock(mutex_);
                // Anyone can send us this; only our own destructor's ends the thread.
                if (message->window == window_ && message->type == atoms_.stop && stopping_) {
                    ended_ = true;
                    changed_.notify_all();
                    return;
                }
                break;
            }
            case XCB_PROPERTY_NOTIFY: {
                const auto* notify =
                    reinterpret_cast<const xcb_property_notify_event_t*>(event.get());
                if (notify->window == window_ && notify->atom == atoms_.stamp &&
                    notify->state == XCB_PROPERTY_NEW_VALUE) {
                    takeOwnership(notify->time);
                }
                break;
            }
            case XCB_SELECTION_REQUEST:
                answer(*reinterpret_cast<const xcb_selection_request_event_t*>(event.get()));
                break;
            case XCB_SELECTION_CLEAR: {
                const auto* clear =
                    reinterpret_cast<const xcb_selection_clear_event_t*>(event.get());
                std::lock_guard lock(mutex_);
                if (clear->owner == window_ && clear->selection == atoms_.clipboard && owned_ &&
                    notBefore(clear->time, ownedSince_)) {
                    owned_ = false;
                    // Kept while a newer text waits to be offered.
                    if (granted_ == asked_) {
                        offer_.reset();
                    }
                }
                break;
            }
            default:
                // Errors of requests to requestors' windows that went away land here too.
                break;
        }
    }
    std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
}

void XcbClipboard::takeOwnership(std::uint32_t time) {
    std::uint64_t ticket = 0;
    {
        std::lock_guard lock(mutex_);
        if (granted_ == asked_) {
            return;
        }
        ticket = asked_;
    }
    xcb_set_selection_owner(connection_, window_, atoms_.clipboard, time);
    const XcbOwned<xcb_get_selection_owner_reply_t> owner(xcb_get_selection_owner_reply(
        connection_, xcb_get_selection_owner(connection_, atoms_.clipboard), nullptr));
    std::lock_guard lock(mutex_);
    granted_ = std::max(granted_, ticket);
    owned_ = owner && owner->owner == window_;
    if (owned_) {
        ownedSince_ = time;
    }
    changed_.notify_all();
}

void XcbClipboard::answer(const xcb_selection_request_event_t& request) {
    std::shared_ptr<const Offer> offer;
    bool owned = false;
    std::uint32_t ownedSince = 0;
    {
        std::lock_guard lock(mutex_);
        offer = offer_;
        owned = owned_;
        ownedSince = ownedSince_;
    }
    // Clients of before ICCCM 2 name no property; the target's own name stands in for it.
    const std::uint32_t property =
        request.property == XCB_ATOM_NONE ? request.target : request.property;
    const bool given = owned && offer && request.owner == window_ &&
                       request.selection == atoms_.clipboard &&
                       (request.time == XCB_CURRENT_TIME || notBefore(request.time, ownedSince)) &&
                       convert(request, property, *offer, ownedSince);
    xcb_selection_notify_event_t notify{};
    notify.response_type = XCB_SELECTION_NOTIFY;
    notify.time = request.time;
    notify.requestor = request.requestor;
    notify.selection = request.selection;
    notify.target = request.target;
    notify.property = given ? property : xcb_atom_t{XCB_ATOM_NONE};
    XcbDisplay::sendEvent(connection_, request.requestor, XCB_EVENT_MASK_NO_EVENT, notify);
    xcb_flush(connection_);
}

bool XcbClipboard::convert(const xcb_selection_request_event_t& request, std::uint32_t property,
                           const Offer& offer, std::uint32_t ownedSince) {
    const xcb_atom_t target = request.target;
    if (target == atoms_.targets) {
        std::vector<xcb_atom_t> targets = {atoms_.targets, atoms_.timestamp, atoms_.utf8String,
                                           atoms_.text, atoms_.plainUtf8};
        if (offer.latin1) {
            targets.push_back(XCB_ATOM_STRING);
        }
        xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, request.requestor, property,
                            XCB_ATOM_ATOM, 32, static_cast<std::uint32_t>(targets.size()),
                            targets.data());
        return true;
    }
    if (target == atoms_.timestamp) {
        xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, request.requestor, property,
                            XCB_ATOM_INTEGER, 32, 1, &ownedSince);
        return true;
    }
    const std::string* bytes = nullptr;
    xcb_atom_t type = XCB_ATOM_NONE;
    if (target == atoms_.utf8String || target == atoms_.text) {
        bytes = &offer.utf8;
        type = atoms_.utf8String;
    } else if (target == atoms_.plainUtf8) {
        bytes = &offer.utf8;
        type = atoms_.plainUtf8;
    } else if (target == XCB_ATOM_STRING && offer.latin1) {
        bytes = &*offer.latin1;
        type = XCB_ATOM_STRING;
    }
    // Anything larger would have to go in INCR pieces, which this does not do.
    if (bytes == nullptr || bytes->size() + kPropertyRequestBytes > maxRequestBytes_) {
        return false;
    }
    xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, request.requestor, property, type, 8,
                        static_cast<std::uint32_t>(bytes->size()), bytes->data());
    return true;
}

}  // namespace velmorand
