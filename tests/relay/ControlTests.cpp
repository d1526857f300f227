#include "velmorand/relay/Control.h"

#include <gtest/gtest.h>

namespace velmorand {
namespace {

std::optional<Control> controlFrom(const char* json) {
    const auto message = IncomingMessage::decode(json);
    EXPECT_TRUE(message.has_value()) << json;
    return message ? Control::from(*message) : std::nullopt;
}

struct ControlCase {
    const char* json;
    std::optional<Control> expected;
};

void expectControls(const std::vector<ControlCase>& cases) {
    for (const auto& c : cases) {
        EXPECT_EQ(controlFrom(c.json), c.expected) << c.json;
    }
}

using C = Control;

TEST(ControlFrom, GesturesDefaultMissingNumbers) {
    expectControls({
        {R"({"type":"tap"})", C{C::Tap{0, 0}}},
        {R"({"type":"tap","x":-5,"y":1e9})", C{C::Tap{-5, 1e9}}},
        {R"({"type":"double_tap","x":3})", C{C::DoubleTap{3, 0}}},
        {R"({"type":"long_press","x":5,"y":6})", C{C::LongPress{5, 6, 500}}},
        {R"({"type":"long_press","ms":-1})", C{C::LongPress{0, 0, -1}}},
        {R"({"type":"touch_down","x":1,"y":2})", C{C::TouchDown{1, 2}}},
        {R"({"type":"touch_move","y":2})", C{C::TouchMove{0, 2}}},
        {R"({"type":"touch_up","x":1})", C{C::TouchUp{1, 0}}},
    });
}

TEST(ControlFrom, SwipeNeedsBothEnds) {
    expectControls({
        {R"({"type":"swipe","from":{"x":1,"y":2}})", std::nullopt},
        {R"({"type":"swipe","to":{"x":1,"y":2}})", std::nullopt},
        {R"({"type":"swipe","from":{"x":1,"y":2},"to":{"x":3,"y":4}})",
         C{C::Swipe{{1, 2}, {3, 4}, 250}}},
        {R"({"type":"swipe","from":{"x":1,"y":2},"to":{"x":3,"y":4},"ms":0})",
         C{C::Swipe{{1, 2}, {3, 4}, 0}}},
    });
}

TEST(ControlFrom, StringsComeFromTheirOwnKeysVerbatim) {
    expectControls({
        {R"({"type":"text","text":"hi"})", C{C::Text{""}}},
        {R"({"type":"text","value":" hi \n"})", C{C::Text{" hi \n"}}},
        {R"({"type":"key","key":"enter","value":"x"})", C{C::Key{"enter"}}},
        {R"({"type":"key"})", C{C::Key{""}}},
        {R"({"type":"button","name":" home "})", C{C::Button{" home "}}},
        {R"({"type":"open_url","url":"https://a.example/x y"})",
         C{C::OpenURL{"https://a.example/x y"}}},
        {R"({"type":"open_url"})", C{C::OpenURL{""}}},
    });
}

TEST(ControlFrom, ClipboardPrefersNonEmptyValue) {
    expectControls({
        {R"({"type":"paste","value":"","text":"b"})", C{C::SetClipboard{"b"}}},
        {R"({"type":"paste","value":"a","text":"b"})", C{C::SetClipboard{"a"}}},
        {R"({"type":"set_clipboard","text":"b"})", C{C::SetClipboard{"b"}}},
        {R"({"type":"set_clipboard","value":""})", C{C::SetClipboard{""}}},
    });
}

TEST(ControlFrom, BundleIdentifierIsTrimmedAndEitherSpelling) {
    expectControls({
        {R"({"type":"launch_app","bundleId":"  ","bundleID":" com.example.app\n"})",
         C{C::LaunchApp{"com.example.app"}}},
        {R"({"type":"launch_app","bundleId":"\tcom.a ","bundleID":"com.b"})",
         C{C::LaunchApp{"com.a"}}},
        {R"({"type":"kill_app","bundleID":"com.b"})", C{C::KillApp{"com.b"}}},
        {R"({"type":"kill_app"})", C{C::KillApp{""}}},
    });
}

TEST(ControlFrom, PushMediaDefaults) {
    expectControls({
        {R"({"type":"push_media"})", C{C::PushMedia{"file", "application/octet-stream", ""}}},
        {R"({"type":"push_media","fileName":"a.png","mime":"image/png","dataB64":"!!"})",
         C{C::PushMedia{"a.png", "image/png", "!!"}}},
    });
}

TEST(ControlFrom, OtherTypesGiveNoCommand) {
    expectControls({
        {R"({"type":"TAP"})", std::nullopt},
        {R"({"type":"tap "})", std::nullopt},
        {R"({"type":"need_apps"})", std::nullopt},
        {R"({"type":"webrtc_offer"})", std::nullopt},
        {R"({"type":"ping"})", std::nullopt},
    });
}

TEST(ControlName, SpellsEveryCase) {
    const std::pair<C, std::string_view> cases[] = {
        {C{C::Tap{}}, "tap"},
        {C{C::DoubleTap{}}, "doubleTap"},
        {C{C::LongPress{}}, "longPress"},
        {C{C::Swipe{}}, "swipe"},
        {C{C::TouchDown{}}, "touchDown"},
        {C{C::TouchMove{}}, "touchMove"},
        {C{C::TouchUp{}}, "touchUp"},
        {C{C::Text{}}, "text"},
        {C{C::Key{}}, "key"},
        {C{C::Button{}}, "button"},
        {C{C::OpenURL{}}, "openURL"},
        {C{C::LaunchApp{}}, "launchApp"},
        {C{C::KillApp{}}, "killApp"},
        {C{C::SetClipboard{}}, "setClipboard"},
        {C{C::PushMedia{}}, "pushMedia"},
    };
    static_assert(std::size(cases) == std::variant_size_v<C::Command>);
    for (const auto& [control, name] : cases) {
        EXPECT_EQ(control.name(), name);
    }
}

}  // namespace
}  // namespace velmorand
