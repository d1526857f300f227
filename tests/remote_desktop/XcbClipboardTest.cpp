#include "velmorand/x11/XcbClipboard.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "XcbTestClient.h"
#include "Xvfb.h"

namespace velmorand {
namespace {

using namespace std::chrono_literals;
using testing::Owned;

constexpr auto kAnswerWait = 2000ms;

struct Pasted {
    xcb_atom_t type = XCB_ATOM_NONE;
    std::string bytes;
    bool operator==(const Pasted&) const = default;
};

// An application that pastes: it asks the CLIPBOARD's owner for `target` and reads the answer.
class Paster {
  public:
    explicit Paster(testing::XcbTestClient& client)
        : client_(client),
          window_(client.createWindow(client.root(), 0, 0, 1, 1, XCB_EVENT_MASK_NO_EVENT, false)),
          clipboard_(client.atom("CLIPBOARD")),
          property_(client.atom("VELMORAND_TEST_PASTE")) {}

    xcb_window_t window() const { return window_; }
    xcb_atom_t clipboard() const { return clipboard_; }

    std::optional<Pasted> paste(xcb_atom_t target) {
        xcb_convert_selection(client_.connection(), window_, clipboard_, target, property_,
                              XCB_CURRENT_TIME);
        return answer();
    }

    // The same question put straight to `owner`, as one that has just lost the clipboard might
    // still be asked.
    std::optional<Pasted> askDirectly(xcb_window_t owner, xcb_atom_t target) {
        xcb_selection_request_event_t request{};
        request.response_type = XCB_SELECTION_REQUEST;
        request.time = XCB_CURRENT_TIME;
        request.owner = owner;
        request.requestor = window_;
        request.selection = clipboard_;
        request.target = target;
        request.property = property_;
        char wire[32] = {};
        std::memcpy(wire, &request, sizeof request);
        xcb_send_event(client_.connection(), 0, owner, XCB_EVENT_MASK_NO_EVENT, wire);
        return answer();
    }

  private:
    std::optional<Pasted> answer() {
        xcb_flush(client_.connection());
        while (const auto event = client_.nextEvent(kAnswerWait)) {
            if ((event->response_type & 0x7F) != XCB_SELECTION_NOTIFY) {
                continue;
            }
            const auto* notify = reinterpret_cast<const xcb_selection_notify_event_t*>(event.get());
            if (notify->property == XCB_ATOM_NONE) {
                return std::nullopt;
            }
            const Owned<xcb_get_property_reply_t> value(xcb_get_property_reply(
                client_.connection(),
                xcb_get_property(client_.connection(), 1, window_, notify->property,
                                 XCB_GET_PROPERTY_TYPE_ANY, 0, (2 << 20) / 4),
                nullptr));
            if (!value) {
                return Pasted{XCB_ATOM_NONE, "(no property)"};
            }
            const auto* bytes = static_cast<const char*>(xcb_get_property_value(value.get()));
            const auto length = xcb_get_property_value_length(value.get());
            return Pasted{value->type, std::string(bytes, static_cast<std::size_t>(length))};
        }
        return Pasted{XCB_ATOM_NONE, "(no answer)"};
    }

    testing::XcbTestClient& client_;
    xcb_window_t window_;
    xcb_atom_t clipboard_;
    xcb_atom_t property_;
};

std::vector<xcb_atom_t> atoms(const Pasted& pasted) {
    std::vector<xcb_atom_t> list(pasted.bytes.size() / sizeof(xcb_atom_t));
    std::memcpy(list.data(), pasted.bytes.data(), list.size() * sizeof(xcb_atom_t));
    return list;
}

TEST(XcbClipboardTest, ServesTheTextUntilAnotherClientTakesIt) {
    testing::Xvfb xvfb(320, 240);
    ASSERT_TRUE(xvfb.running()) << "Xvfb did not start";
    testing::XcbTestClient client(xvfb.display());
    ASSERT_TRUE(client.connected());
    auto opened = XcbClipboard::open(xvfb.display().c_str());
    ASSERT_TRUE(std::holds_alternative<std::unique_ptr<Pasteboard>>(opened))
        << std::get<std::string>(opened);
    auto& clipboard = *std::get<std::unique_ptr<Pasteboard>>(opened);
    Paster paster(client);
    const xcb_atom_t utf8 = client.atom("UTF8_STRING");
    const xcb_atom_t mime = client.atom("text/plain;charset=utf-8");
    const std::string large(1 << 20, 'x');

    struct Case {
        std::string text;
        xcb_atom_t target;
        std::optional<Pasted> expected;
    };
    const Case cases[] = {
        {"plain text", utf8, Pasted{utf8, "plain text"}},
        {"h\u00e9llo w\u00f6rld \u20ac \u2713", utf8,
         Pasted{utf8, "h\u00e9llo w\u00f6rld \u20ac \u2713"}},
        {"caf\u00e9", mime, Pasted{mime, "caf\u00e9"}},
        {"caf\u00e9", client.atom("TEXT"), Pasted{utf8, "caf\u00e9"}},
        // STRING is Latin-1, which has no euro sign.
        {"caf\u00e9", XCB_ATOM_STRING, Pasted{XCB_ATOM_STRING, "caf\xe9"}},
        {"5 \u20ac", XCB_ATOM_STRING, std::nullopt},
        {"5 \u20ac", client.atom("MULTIPLE"), std::nullopt},
        {large, utf8, Pasted{utf8, large}},
    };
    for (const auto& c : cases) {
        clipboard.setString(c.text);
        EXPECT_EQ(paster.paste(c.target), c.expected) << c.text.substr(0, 20);
    }

    clipboard.setString("5 \u20ac");
    const auto targets = paster.paste(client.atom("TARGETS"));
    ASSERT_TRUE(targets.has_value());
    EXPECT_EQ(targets->type, XCB_ATOM_ATOM);
    const auto offered = atoms(*targets);
    EXPECT_NE(std::find(offered.begin(), offered.end(), utf8), offered.end());
    EXPECT_EQ(std::find(offered.begin(), offered.end(), XCB_ATOM_STRING), offered.end())
        << "the text has characters beyond Latin-1";

    // Another application copies something: ours stays quiet from then on.
    const Owned<xcb_get_selection_owner_reply_t> ours(xcb_get_selection_owner_reply(
        client.connection(), xcb_get_selection_owner(client.connection(), paster.clipboard()),
        nullptr));
    ASSERT_TRUE(ours);
    xcb_set_selection_owner(client.connection(), paster.window(), paster.clipboard(),
                            XCB_CURRENT_TIME);
    client.sync();
    EXPECT_EQ(paster.askDirectly(ours->owner, utf8), std::nullopt);

    clipboard.setString("again");
    EXPECT_EQ(paster.paste(utf8), (Pasted{utf8, "again"}));
}

}  // namespace
}  // namespace velmorand
