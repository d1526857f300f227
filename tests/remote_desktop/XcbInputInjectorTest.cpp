#include "velmorand/x11/XcbInputInjector.h"

#include <gtest/gtest.h>
#include <xkbcommon/xkbcommon-keysyms.h>
#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

#include "ScopedEnv.h"
#include "XcbTestClient.h"
#include "Xvfb.h"
#include "velmorand/x11/XcbClipboard.h"
#include "velmorand/x11/XcbWindowCloser.h"

namespace velmorand {
namespace {

using testing::Owned;

constexpr int kScreenWidth = 320;
constexpr int kScreenHeight = 240;

// The core keyboard mapping as a client reads it at one moment.
class CoreKeymap {
  public:
    explicit CoreKeymap(xcb_connection_t* connection) {
        const auto* setup = xcb_get_setup(connection);
        minKeycode_ = setup->min_keycode;
        const Owned<xcb_get_keyboard_mapping_reply_t> reply(xcb_get_keyboard_mapping_reply(
            connection,
            xcb_get_keyboard_mapping(
                connection, setup->min_keycode,
                static_cast<std::uint8_t>(setup->max_keycode - setup->min_keycode + 1)),
            nullptr));
        if (reply) {
            width_ = reply->keysyms_per_keycode;
            const auto* keysyms = xcb_get_keyboard_mapping_keysyms(reply.get());
            keysyms_.assign(keysyms,
                            keysyms + xcb_get_keyboard_mapping_keysyms_length(reply.get()));
        }
    }

    // What a key event means, by the core protocol's rules for shift and caps lock.
    xkb_keysym_t keysym(int keycode, std::uint16_t state) const {
        const auto index = static_cast<std::size_t>(keycode - minKeycode_) * width_;
        if (width_ == 0 || index + width_ > keysyms_.size()) {
            return XKB_KEY_NoSymbol;
        }
        xkb_keysym_t lower = keysyms_[index];
        xkb_keysym_t upper = width_ > 1 ? keysyms_[index + 1] : XKB_KEY_NoSymbol;
        if (upper == XKB_KEY_NoSymbol) {
            upper = xkb_keysym_to_upper(lower);
            lower = xkb_keysym_to_lower(lower);
        }
        bool shifted = (state & XCB_MOD_MASK_SHIFT) != 0;
        if ((state & XCB_MOD_MASK_LOCK) != 0 && lower != upper &&
            xkb_keysym_to_upper(lower) == upper) {
            shifted = !shifted;
        }
        return shifted ? upper : lower;
    }

    bool has(xkb_keysym_t keysym) const {
        return std::find(keysyms_.begin(), keysyms_.end(), keysym) != keysyms_.end();
    }

  private:
    int minKeycode_ = 0;
    std::size_t width_ = 0;
    std::vector<xcb_keysym_t> keysyms_;
};

// One line per key as an application reads it; modifier keys show only in the state of the keys
// they modify.
std::optional<std::string> describe(const xcb_generic_event_t& event, const CoreKeymap& keymap) {
    if ((event.response_type & 0x7F) != XCB_KEY_PRESS) {
        return std::nullopt;
    }
    const auto& key = reinterpret_cast<const xcb_key_press_event_t&>(event);
    const xkb_keysym_t keysym = keymap.keysym(key.detail, key.state);
    if (keysym >= XKB_KEY_Shift_L && keysym <= XKB_KEY_Hyper_R) {
        return std::nullopt;
    }
    char text[8] = {};
    const int length = xkb_keysym_to_utf8(keysym, text, sizeof text);
    std::string line;
    if (length > 1 && static_cast<unsigned char>(text[0]) >= 0x20 && text[0] != 0x7F) {
        line = std::string("type ") + text;
    } else {
        char name[64] = {};
        xkb_keysym_get_name(keysym, name, sizeof name);
        line = std::string("key ") + name;
    }
    return line + ((key.state & XCB_MOD_MASK_CONTROL) != 0 ? " +ctrl" : "");
}

class XcbInputInjectorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(xvfb_.running()) << "Xvfb did not start";
        client_.emplace(xvfb_.display());
        ASSERT_TRUE(client_->connected());
        const xcb_window_t window = client_->createWindow(client_->root(), 0, 0, kScreenWidth,
                                                          kScreenHeight, XCB_EVENT_MASK_KEY_PRESS);
        xcb_set_input_focus(client_->connection(), XCB_INPUT_FOCUS_POINTER_ROOT, window,
                            XCB_CURRENT_TIME);
        client_->sync();
        auto opened = XcbInputInjector::open(xvfb_.display().c_str());
        ASSERT_TRUE(std::holds_alternative<std::unique_ptr<InputInjector>>(opened))
            << std::get<std::string>(opened);
        injector_ = std::move(std::get<std::unique_ptr<InputInjector>>(opened));
    }

    // What reached the window since last asked. Keys are read with the mapping in force now,
    // as a client that is slow to read them would.
    std::vector<std::string> received() {
        if (injector_) {
            injector_->flush();
        }
        const auto events = client_->queuedEvents();
        const CoreKeymap keymap(client_->connection());
        std::vector<std::string> lines;
        for (const auto& event : events) {
            if (auto line = describe(*event, keymap)) {
                lines.push_back(std::move(*line));
            }
        }
        return lines;
    }

    std::uint16_t pointerState() {
        const Owned<xcb_query_pointer_reply_t> pointer(xcb_query_pointer_reply(
            client_->connection(), xcb_query_pointer(client_->connection(), client_->root()),
            nullptr));
        return pointer ? pointer->mask : 0xFFFF;
    }

    bool anyKeyDown() {
        const Owned<xcb_query_keymap_reply_t> keymap(xcb_query_keymap_reply(
            client_->connection(), xcb_query_keymap(client_->connection()), nullptr));
        return !keymap || std::any_of(std::begin(keymap->keys), std::end(keymap->keys),
                                      [](std::uint8_t bits) { return bits != 0; });
    }

    testing::Xvfb xvfb_{kScreenWidth, kScreenHeight};
    std::optional<testing::XcbTestClient> client_;
    std::unique_ptr<InputInjector> injector_;
};

TEST_F(XcbInputInjectorTest, TypesEveryCharacterAndLetsGoOfEveryKey) {
    EXPECT_EQ(injector_->screenSize(), (ScreenSize{kScreenWidth, kScreenHeight}));
    received();

    const auto typeText = [](std::u32string_view text) {
        return [text](InputInjector& input) {
            for (const char32_t c : text) {
                EXPECT_TRUE(input.typeCharacter(c)) << static_cast<std::uint32_t>(c);
            }
        };
    };
    struct Case {
        const char* what;
        std::function<void(InputInjector&)> act;
        std::vector<std::string> expected;
    };
    const Case cases[] = {
        // é and € are on no key of the server's layout; z shows shift was let go of.
        {"text",
         typeText(U"aB é€!z"),
         {"type a", "type B", "type  ", "type é", "type €", "type !", "type z"}},
        // The viewer's held shift is lifted for a lower-case letter only.
        {"text under a held shift",
         [&typeText](InputInjector& input) {
             input.setKey(NamedKey::shift, true);
             typeText(U"aB")(input);
             input.setKey(NamedKey::shift, false);
         },
         {"type a", "type B"}},
        {"ctrl+a",
         [](InputInjector& input) {
             input.setKey(NamedKey::control, true);
             EXPECT_TRUE(input.setCharacterKey(U'a', true));
             EXPECT_TRUE(input.setCharacterKey(U'a', false));
             input.setKey(NamedKey::control, false);
         },
         {"type a +ctrl"}},
    };
    for (const auto& c : cases) {
        c.act(*injector_);
        EXPECT_EQ(received(), c.expected) << c.what;
        EXPECT_FALSE(anyKeyDown()) << c.what << ": a key was not let go of";
        EXPECT_EQ(pointerState(), 0) << c.what;
    }
}

TEST_F(XcbInputInjectorTest, LetsGoOfEverythingWhenDestroyed) {
    injector_->movePointer(50, 50);
    injector_->setLeftButton(true);
    injector_->setKey(NamedKey::shift, true);
    ASSERT_TRUE(injector_->setCharacterKey(U'é', true));
    injector_->flush();
    EXPECT_EQ(pointerState(), std::uint16_t{XCB_BUTTON_MASK_1} | std::uint16_t{XCB_MOD_MASK_SHIFT});
    EXPECT_TRUE(anyKeyDown());
    EXPECT_TRUE(CoreKeymap(client_->connection()).has(XKB_KEY_eacute));

    injector_.reset();
    client_->sync();
    EXPECT_EQ(pointerState(), 0);
    EXPECT_FALSE(anyKeyDown());
    EXPECT_FALSE(CoreKeymap(client_->connection()).has(XKB_KEY_eacute))
        << "the borrowed keycode was not given back";
}

template <typename Service>
std::string openError(std::variant<std::unique_ptr<Service>, std::string> opened) {
    const auto* error = std::get_if<std::string>(&opened);
    return error != nullptr ? *error : "opened";
}

TEST(XcbRemoteControlOpenTest, SaysWhyThereIsNoDisplay) {
    const std::function<std::string(const char*)> services[] = {
        [](const char* name) { return openError(XcbInputInjector::open(name)); },
        [](const char* name) { return openError(XcbClipboard::open(name)); },
        [](const char* name) { return openError(XcbWindowCloser::open(name)); },
    };
    struct Case {
        const char* display;
        const char* name;
        const char* error;
    };
    const Case cases[] = {
        {nullptr, nullptr, "remote control needs an X11 display (DISPLAY is not set)"},
        {":0", ":987", "cannot open X11 display :987"},
        {":987", nullptr, "cannot open X11 display :987"},
    };
    const testing::ScopedEnv noWayland("WAYLAND_DISPLAY", nullptr);
    for (const auto& c : cases) {
        const testing::ScopedEnv display("DISPLAY", c.display);
        for (std::size_t service = 0; service < std::size(services); ++service) {
            EXPECT_EQ(services[service](c.name), c.error) << service;
        }
    }
}

}  // namespace
}  // namespace velmorand
