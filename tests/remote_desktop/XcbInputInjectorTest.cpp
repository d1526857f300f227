// A broadcast that died while it had keycodes bound for characters the layout lacks: the next one
// gives back exactly those it finds as they were lent, and only once their owner is gone.
#include "velmorand/x11/XcbInputInjector.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>
#include <xcb/xcb.h>
#include <xkbcommon/xkbcommon-keysyms.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "SpawnedServer.h"
#include "XClient.h"

namespace velmorand {
namespace {

// A process id nobody has: a child already reaped.
std::uint32_t deadPid() {
    const pid_t child = ::fork();
    if (child == 0) {
        ::_exit(0);
    }
    ::waitpid(child, nullptr, 0);
    return static_cast<std::uint32_t>(child);
}

// The display's keyboard mapping and the injectors' record, as any other client sees them.
class Keyboard : public testing::XClient {
  public:
    using XClient::XClient;

    const int min = setup->min_keycode;
    const int max = setup->max_keycode;

    std::vector<xcb_keysym_t> row(int keycode) {
        const auto reply = owned(xcb_get_keyboard_mapping_reply(
            connection,
            xcb_get_keyboard_mapping(connection, static_cast<xcb_keycode_t>(keycode), 1), nullptr));
        if (!reply) {
            return {};
        }
        const xcb_keysym_t* first = xcb_get_keyboard_mapping_keysyms(reply.get());
        return {first, first + reply->keysyms_per_keycode};
    }

    bool unbound(int keycode) {
        const auto keysyms = row(keycode);
        return std::all_of(keysyms.begin(), keysyms.end(),
                           [](xcb_keysym_t keysym) { return keysym == XKB_KEY_NoSymbol; });
    }

    void bind(int keycode, std::vector<xcb_keysym_t> keysyms) {
        keysyms.resize(row(min).size(), XKB_KEY_NoSymbol);
        xcb_change_keyboard_mapping(connection, 1, static_cast<xcb_keycode_t>(keycode),
                                    static_cast<std::uint8_t>(keysyms.size()), keysyms.data());
        sync();
    }

    // What a broadcast leaves on the root window: its process id, then the keycodes it lent.
    void record(const std::vector<std::uint32_t>& values) {
        const xcb_atom_t name = atom("_VELMORAND_INPUT_INJECTOR");
        ASSERT_NE(name, xcb_atom_t{XCB_ATOM_NONE});
        xcb_change_property(connection, XCB_PROP_MODE_REPLACE, root, name, XCB_ATOM_CARDINAL, 32,
                            static_cast<std::uint32_t>(values.size()), values.data());
        sync();
    }

    // The first keycode bound to `keysym`, if any.
    std::optional<int> keycodeOf(xcb_keysym_t keysym) {
        for (int keycode = min; keycode <= max; ++keycode) {
            const auto keysyms = row(keycode);
            if (std::find(keysyms.begin(), keysyms.end(), keysym) != keysyms.end()) {
                return keycode;
            }
        }
        return std::nullopt;
    }

    bool pressed(int keycode) {
        const auto keymap =
            owned(xcb_query_keymap_reply(connection, xcb_query_keymap(connection), nullptr));
        return keymap && (keymap->keys[keycode / 8] & (1U << (keycode % 8))) != 0;
    }
};

std::unique_ptr<InputInjector> openInjector(const std::string& display) {
    auto opened = XcbInputInjector::open(display.c_str());
    if (auto* injector = std::get_if<std::unique_ptr<InputInjector>>(&opened)) {
        return std::move(*injector);
    }
    ADD_FAILURE() << std::get<std::string>(opened);
    return nullptr;
}

TEST(XcbInputInjectorTest, ADeadBroadcastsLentKeycodesAndOnlyThoseAreGivenBack) {
    testing::PrivateXServer server;
    ASSERT_FALSE(server.display().empty()) << "Xvfb did not start";
    Keyboard keyboard(server.display());
    const xcb_keysym_t e = XKB_KEY_eacute;
    const struct {
        int keycode;
        std::vector<xcb_keysym_t> binding;
        bool givenBack;
        const char* what;
    } cases[] = {
        {keyboard.max, {e, e}, true, "lent, the highest keycode"},
        {keyboard.min, {e, e}, true, "lent, the lowest keycode"},
        {keyboard.max - 1, {e, e, e, e}, true, "lent, repeated into every group"},
        {keyboard.max - 2, {e, XKB_KEY_Eacute}, false, "bound differently since"},
    };
    std::vector<std::uint32_t> record{deadPid()};
    for (const auto& c : cases) {
        keyboard.bind(c.keycode, c.binding);
        record.push_back(static_cast<std::uint32_t>(c.keycode));
    }
    // Beyond any keycode: read, and left alone.
    record.push_back(256);
    keyboard.record(record);

    openInjector(server.display());
    for (const auto& c : cases) {
        EXPECT_EQ(keyboard.unbound(c.keycode), c.givenBack) << c.what;
    }

    // A broadcast still running keeps what it lent.
    keyboard.bind(keyboard.max, {e, e});
    keyboard.record(
        {static_cast<std::uint32_t>(::getpid()), static_cast<std::uint32_t>(keyboard.max)});
    openInjector(server.display());
    EXPECT_FALSE(keyboard.unbound(keyboard.max)) << "taken from a live broadcast";
}

// A named key the layout lacks is pressed on a keycode lent for it, and let go.
TEST(XcbInputInjectorTest, ANamedKeyTheLayoutLacksIsPressedOnALentKeycode) {
    testing::PrivateXServer server;
    ASSERT_FALSE(server.display().empty()) << "Xvfb did not start";
    Keyboard keyboard(server.display());
    while (const auto bound = keyboard.keycodeOf(XKB_KEY_F5)) {
        keyboard.bind(*bound, {});
    }
    const auto injector = openInjector(server.display());
    ASSERT_TRUE(injector);
    injector->setKey(NamedKey::f5, true);
    injector->flush();
    const auto lent = keyboard.keycodeOf(XKB_KEY_F5);
    ASSERT_TRUE(lent) << "no keycode lent for F5";
    EXPECT_TRUE(keyboard.pressed(*lent));
    injector->setKey(NamedKey::f5, false);
    injector->flush();
    EXPECT_FALSE(keyboard.pressed(*lent));
}

}  // namespace
}  // namespace velmorand
