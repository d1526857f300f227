#pragma once

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <variant>

#include "velmorand/platform/Pasteboard.h"

struct xcb_connection_t;
struct xcb_selection_request_event_t;

namespace velmorand {

// The X11 CLIPBOARD selection, owned through a window of its own. A thread answers the
// applications that paste, until another client takes the clipboard.
class XcbClipboard : public Pasteboard {
  public:
    // `displayName` as X11 spells it (":0"); nullptr takes $DISPLAY.
    static std::variant<std::unique_ptr<Pasteboard>, std::string> open(const char* displayName);

    ~XcbClipboard() override;
    XcbClipboard(const XcbClipboard&) = delete;
    XcbClipboard& operator=(const XcbClipboard&) = delete;

    // Returns once the clipboard is ours, or has been waited for long enough.
    void setString(std::string_view text) override;

  private:
    struct Atoms {
        std::uint32_t clipboard = 0;
        std::uint32_t targets = 0;
        std::uint32_t timestamp = 0;
        std::uint32_t utf8String = 0;
        std::uint32_t text = 0;
        std::uint32_t plainUtf8 = 0;
        std::uint32_t stamp = 0;
        std::uint32_t stop = 0;
    };
    // The text in the forms it is handed out in.
    struct Offer {
        std::string utf8;
        std::optional<std::string> latin1;
    };

    XcbClipboard(xcb_connection_t* connection, std::uint32_t window, const Atoms& atoms);

    void serve();
    void takeOwnership(std::uint32_t time);
    void answer(const xcb_selection_request_event_t& request);
    // Writes `target` of the text to the requestor's property; false when it cannot.
    bool convert(const xcb_selection_request_event_t& request, std::uint32_t property,
                 const Offer& offer, std::uint32_t ownedSince);

    xcb_connection_t* connection_;
    const std::uint32_t window_;
    const Atoms atoms_;
    const std::uint64_t maxRequestBytes_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::shared_ptr<const Offer> offer_;
    std::uint64_t asked_ = 0;
    std::uint64_t granted_ = 0;
    bool owned_ = false;
    std::uint32_t ownedSince_ = 0;
    bool stopping_ = false;
    bool ended_ = false;
    std::thread thread_;
};

}  // namespace velmorand
