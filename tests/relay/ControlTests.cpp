#include "velmorand/relay/Control.h"
#include "velmorand/relay/RelayUrlPolicy.h"

#include <gtest/gtest.h>

namespace velmorand {
namespace {

using C = Control;

TEST(ControlFrom, BuildsEachCommandWithItsDefaults) {
    const std::pair<const char*, std::optional<C>> cases[] = {
        {R"({"type":"tap"})", C{C::Tap{0, 0}}},
        {R"({"type":"double_tap","x":-5,"y":1e9})", C{C::DoubleTap{-5, 1e9}}},
        {R"({"type":"long_press","x":5,"y":6})", C{C::LongPress{5, 6, 500}}},
        {R"({"type":"touch_up","x":1})", C{C::TouchUp{1, 0}}},
        // A swipe needs both ends.
        {R"({"type":"swipe","from":{"x":1,"y":2}})", std::nullopt},
        {R"({"type":"swipe","to":{"x":1,"y":2}})", std::nullopt},
        {R"({"type":"swipe","from":{"x":1,"y":2},"to":{"x":3,"y":4}})",
         C{C::Swipe{{1, 2}, {3, 4}, 250}}},
        {R"({"type":"swipe","from":{"x":1,"y":2},"to":{"x":3,"y":4},"ms":0})",
         C{C::Swipe{{1, 2}, {3, 4}, 0}}},
        // Strings come verbatim from their own keys.
        {R"({"type":"text","text":"hi"})", C{C::Text{""}}},
        {R"({"type":"text","value":" hi \n"})", C{C::Text{" hi \n"}}},
        {R"({"type":"key","key":"enter","value":"x"})", C{C::Key{"enter"}}},
        {R"({"type":"button","name":" home "})", C{C::Button{" home "}}},
        {R"({"type":"open_url","url":"https://a.example/x y"})",
         C{C::OpenURL{"https://a.example/x y"}}},
        // The clipboard prefers a non-empty value over text.
        {R"({"type":"paste","value":"","text":"b"})", C{C::SetClipboard{"b"}}},
        {R"({"type":"paste","value":"a","text":"b"})", C{C::SetClipboard{"a"}}},
        // Bundle identifiers are trimmed, and either spelling serves.
        {R"({"type":"launch_app","bundleId":"  ","bundleID":" com.example.app\n"})",
         C{C::LaunchApp{"com.example.app"}}},
        {R"({"type":"launch_app","bundleId":"\tcom.a ","bundleID":"com.b"})",
         C{C::LaunchApp{"com.a"}}},
        {R"({"type":"push_media"})", C{C::PushMedia{"file", "application/octet-stream", ""}}},
        {R"({"type":"push_media","fileName":"a.png","mime":"image/png","dataB64":"!!"})",
         C{C::PushMedia{"a.png", "image/png", "!!"}}},
        // Other types, matched whole and case-sensitively, give nothing.
        {R"({"type":"TAP"})", std::nullopt},
        {R"({"type":"webrtc_offer"})", std::nullopt},
    };
    for (const auto& [json, expected] : cases) {
        const auto message = IncomingMessage::decode(json);
        ASSERT_TRUE(message.has_value()) << json;
        EXPECT_EQ(C::from(*message), expected) << json;
    }
}

TEST(RelayUrlPolicy, PlaintextOnlyOnThisComputerAndNoCredentials) {
    const std::pair<const char*, bool> rows[] = {
        {"wss://relay.example.org/r", true},
        {"ws://127.0.0.1:8080/relay", true},
        {"ws://127.200.3.4/relay", true},
        {"WS://LocalHost:81", true},
        {"ws://[::1]:9000", true},
        {"ws://relay.example.org/r", false},
        {"ws://128.0.0.1/r", false},
        {"ws://127.0.0.1.example.org/r", false},
        {"ws://127.0.0.256/r", false},
        {"ws://localhost.example.org/r", false},
        {"wss://user@relay.example.org", false},
        {"ws://user:pw@127.0.0.1", false},
        // For the link itself to judge: it logs "bad relay url" or fails to connect.
        {"not a url", true},
        {"https://relay.example.org", true},
    };
    for (const auto& [url, allowed] : rows) {
        EXPECT_EQ(!RelayUrlPolicy::refusal(url).has_value(), allowed) << url;
    }
}

}  // namespace
}  // namespace velmorand
