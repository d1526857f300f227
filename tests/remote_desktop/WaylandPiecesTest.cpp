// What the Wayland backends decide without a compositor: how a screen-cast buffer becomes the
// stream's pixels, which characters a layout types, what input a session is sent for them, and
// when a new session is opened.
#include <gtest/gtest.h>
#include <xkbcommon/xkbcommon.h>

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "velmorand/pipewire/FrameCopy.h"
#include "velmorand/wayland/RemoteDesktopSession.h"
#include "velmorand/wayland/RemoteDesktopSessions.h"
#include "velmorand/wayland/WaylandInputInjector.h"
#include "velmorand/wayland/WaylandKeymap.h"

namespace velmorand {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(FrameCopyTest, PixelsComeOutAsBgrxRowsWhateverTheBufferLooksLike) {
    // Two pixels a row, two rows; each row padded to 12 bytes; the picture 4 bytes in.
    const Bytes buffer = {0xEE, 0xEE, 0xEE, 0xEE,                             // before
                          1,    2,    3,    4,    5,  6,  7,  8, 0, 0, 0, 0,  // row 0
                          9,    10,   11,   12,   13, 14, 15, 16};            // row 1
    const FrameLayout padded{.width = 2, .height = 2, .stride = 12, .offset = 4};
    const std::pair<PixelOrder, Bytes> rows[] = {
        {PixelOrder::bgrx, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}},
        {PixelOrder::bgra, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16}},
        {PixelOrder::rgbx, {3, 2, 1, 4, 7, 6, 5, 8, 11, 10, 9, 12, 15, 14, 13, 16}},
        {PixelOrder::rgba, {3, 2, 1, 4, 7, 6, 5, 8, 11, 10, 9, 12, 15, 14, 13, 16}},
    };
    for (const auto& [order, expected] : rows) {
        Bytes out;
        ASSERT_TRUE(copyToBgrx(buffer, order, padded, out)) << static_cast<int>(order);
        EXPECT_EQ(out, expected) << static_cast<int>(order);
    }
}

TEST(FrameCopyTest, ALayoutTheBufferCannotHoldIsRefused) {
    const Bytes buffer(64, 0x7F);
    const std::pair<FrameLayout, bool> rows[] = {
        {{.width = 4, .height = 4, .stride = 16, .offset = 0}, true},
        // The last row needs only its pixels, not the whole stride.
        {{.width = 3, .height = 4, .stride = 16, .offset = 4}, true},
        {{.width = 4, .height = 4, .stride = 16, .offset = 4}, false},
        {{.width = 4, .height = 5, .stride = 16, .offset = 0}, false},
        {{.width = 4, .height = 4, .stride = 12, .offset = 0}, false},
        {{.width = 4, .height = 1, .stride = 1 << 30, .offset = 0}, false},
        {{.width = 0, .height = 4, .stride = 16, .offset = 0}, false},
        {{.width = 4, .height = -1, .stride = 16, .offset = 0}, false},
        {{.width = 1, .height = 1, .stride = 4, .offset = 65}, false},
    };
    for (const auto& [layout, fits] : rows) {
        Bytes out = {42};
        EXPECT_EQ(copyToBgrx(buffer, PixelOrder::bgrx, layout, out), fits)
            << layout.width << "x" << layout.height << " stride " << layout.stride << " at "
            << layout.offset;
        if (!fits) {
            EXPECT_EQ(out, Bytes{42});
        }
    }
}

TEST(FrameCopyTest, APictureIsTakenUpToAn8KMonitorsPixels) {
    const struct {
        std::int64_t width;
        std::int64_t height;
        bool accepted;
    } rows[] = {
        {7680, 4320, true},   {7681, 4320, false}, {4320, 7680, true}, {16384, 2025, true},
        {16384, 2026, false}, {16385, 1, false},   {1, 16385, false},  {1, 1, true},
        {0, 1, false},        {1, -1, false},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(acceptedPictureSize(row.width, row.height), row.accepted)
            << row.width << "x" << row.height;
    }
}

// A layout's keymap as a compositor would send it.
std::string keymapText(const char* layout) {
    std::unique_ptr<xkb_context, decltype(&xkb_context_unref)> context(
        xkb_context_new(XKB_CONTEXT_NO_FLAGS), &xkb_context_unref);
    const xkb_rule_names names{nullptr, nullptr, layout, nullptr, nullptr};
    std::unique_ptr<xkb_keymap, decltype(&xkb_keymap_unref)> keymap(
        xkb_keymap_new_from_names(context.get(), &names, XKB_KEYMAP_COMPILE_NO_FLAGS),
        &xkb_keymap_unref);
    if (!keymap) {
        return {};
    }
    char* text = xkb_keymap_get_as_string(keymap.get(), XKB_KEYMAP_FORMAT_TEXT_V1);
    std::string result(text);
    std::free(text);
    return result;
}

// The euro sign is AltGr+5 on a US keyboard, AltGr+e on a French one; in "ru,us" the second
// group is not the one typed with.
TEST(WaylandKeymapTest, ALayoutTypesWhatItsFirstGroupHasUpToAltGr) {
    const std::tuple<const char*, std::uint32_t, bool> rows[] = {
        {"us", XKB_KEY_a, true},          {"us", XKB_KEY_A, true},
        {"us", XKB_KEY_exclam, true},     {"us", XKB_KEY_eacute, false},
        {"us", XKB_KEY_kana_A, false},    {"us", XKB_KEY_EuroSign, true},
        {"fr", XKB_KEY_EuroSign, true},   {"fr", XKB_KEY_eacute, true},
        {"ru", XKB_KEY_Cyrillic_a, true}, {"ru,us", XKB_KEY_a, false},
        {"us", XKB_KEY_Return, true}};
    for (const auto& [layout, keysym, types] : rows) {
        const auto text = keymapText(layout);
        ASSERT_FALSE(text.empty()) << "no xkb data for " << layout;
        const auto keymap = WaylandKeymap::fromText(text);
        ASSERT_TRUE(keymap) << layout;
        EXPECT_EQ(keymap->types(keysym), types) << layout << " " << keysym;
    }
    EXPECT_FALSE(WaylandKeymap::fromText("xkb_keymap { not a keymap"));
}

// A session that writes down what it is sent, and plays the program with the keyboard: ctrl+v
// makes it read the clipboard `readsPerPaste` times, one read each time the injector waits; with
// `copiedAtRead`, another program copies that text just after the first read.
class RecordingSession : public RemoteDesktopSession {
  public:
    std::string sent;
    bool clipboard = true;
    std::optional<std::string> held;
    int readsPerPaste = 1;
    std::optional<std::string> copiedAtRead;
    SessionEnd end = SessionEnd::none;

    ScreenSize screenSize() const override { return {1920, 1080}; }
    SessionEnd ended() const override { return end; }
    void movePointer(double x, double y) override {
        note("move " + std::to_string(x).substr(0, 4) + "," + std::to_string(y).substr(0, 4));
    }
    void setButton(std::int32_t, bool pressed) override { note(pressed ? "button↓" : "button↑"); }
    void setKeysym(std::uint32_t keysym, bool pressed) override {
        char name[64];
        xkb_keysym_get_name(keysym, name, sizeof name);
        note(std::string(name) + (pressed ? "↓" : "↑"));
        if (keysym == XKB_KEY_Control_L) {
            ctrl_ = pressed;
        } else if (keysym == XKB_KEY_v && pressed && ctrl_) {
            unread_ += readsPerPaste;
        }
    }
    void sync() override {}
    std::chrono::milliseconds pointerSettle() const override { return {}; }
    bool hasClipboard() const override { return clipboard; }
    void offerText(std::string text) override {
        note("offer " + text);
        held = std::move(text);
    }
    std::uint64_t pastes() const override { return reads_; }
    bool waitForPaste(std::uint64_t count, std::chrono::milliseconds) const override {
        if (unread_ > 0) {
            --unread_;
            ++reads_;
            auto& self = *const_cast<RecordingSession*>(this);
            self.note("read " + held.value_or(""));
            if (copiedAtRead) {
                self.held = std::exchange(self.copiedAtRead, std::nullopt);
            }
        }
        return reads_ > count;
    }
    std::optional<std::string> readText() override { return held; }

  private:
    void note(const std::string& what) { sent += (sent.empty() ? "" : " ") + what; }

    bool ctrl_ = false;
    mutable int unread_ = 0;
    mutable std::uint64_t reads_ = 0;
};

TEST(WaylandInputInjectorTest, WhatTheLayoutLacksIsPastedAndTheClipboardPutBack) {
    struct Row {
        const char* what;
        std::u32string text;
        std::optional<std::string> held;
        bool clipboard;
        int readsPerPaste;
        std::optional<std::string> copiedAtRead;
        bool typed;
        const char* sent;
        std::optional<std::string> heldAfter;
    };
    const std::string paste = "Control_L↓ v↓ v↑ Control_L↑";
    const auto none = std::nullopt;
    const Row rows[] = {
        {"keys only", U"a!", "mine", true, 1, none, true, "a↓ a↑ exclam↓ exclam↑", "mine"},
        {"a run is one paste", U"éà!", "mine", true, 1, none, true,
         "offer éà CTRLV read éà offer mine exclam↓ exclam↑", "mine"},
        // Two bytes of UTF-8 up to U+07FF, three from U+0800, four from U+10000 on.
        {"where two bytes end and three begin", U"\u07FF\u0800", "mine", true, 1, none, true,
         "offer \xDF\xBF\xE0\xA0\x80 CTRLV read \xDF\xBF\xE0\xA0\x80 offer mine", "mine"},
        {"beyond the first plane", U"\U00010000\U0001F600", "mine", true, 1, none, true,
         "offer \xF0\x90\x80\x80\xF0\x9F\x98\x80 CTRLV read \xF0\x90\x80\x80\xF0\x9F\x98\x80 "
         "offer mine",
         "mine"},
        {"nothing to put back: the paste stays", U"日", none, true, 1, none, true,
         "offer 日 CTRLV read 日", "日"},
        {"a program that reads twice gets the paste twice", U"é", "mine", true, 2, none, true,
         "offer é CTRLV read é read é offer mine", "mine"},
        {"a program that never reads still gets its clipboard back", U"é", "mine", true, 0, none,
         true, "offer é CTRLV offer mine", "mine"},
        {"what another program copied meanwhile is kept", U"é", "mine", true, 1, "theirs", true,
         "offer é CTRLV read é", "theirs"},
        {"no clipboard, no way to type it", U"é", "mine", false, 1, none, false, "", "mine"},
    };
    const auto keymap = WaylandKeymap::fromText(keymapText("us"));
    ASSERT_TRUE(keymap);
    for (const auto& row : rows) {
        auto session = std::make_shared<RecordingSession>();
        session->held = row.held;
        session->clipboard = row.clipboard;
        session->readsPerPaste = row.readsPerPaste;
        session->copiedAtRead = row.copiedAtRead;
        {
            WaylandInputInjector injector([session] { return session; }, keymap);
            bool typed = true;
            for (const char32_t character : row.text) {
                typed = injector.typeCharacter(character) && typed;
            }
            injector.flush();
            EXPECT_EQ(typed, row.typed) << row.what;
        }
        std::string expected = row.sent;
        if (const auto at = expected.find("CTRLV"); at != std::string::npos) {
            expected.replace(at, 5, paste);
        }
        EXPECT_EQ(session->sent, expected) << row.what;
        EXPECT_EQ(session->held, row.heldAfter) << row.what;
    }
}

TEST(WaylandInputInjectorTest, APressLandsOnThePixelAndWhatIsHeldIsLetGoAtTheEnd) {
    auto session = std::make_shared<RecordingSession>();
    {
        WaylandInputInjector injector([session] { return session; }, std::nullopt);
        injector.movePointer(10, 20);
        injector.setLeftButton(true);
        injector.setKey(NamedKey::enter, true);
        injector.setKey(NamedKey::enter, false);
        injector.setKey(NamedKey::shift, true);
    }
    // A key already let go is not let go again, however many were typed before.
    EXPECT_EQ(session->sent, "move 10.5,20.5 button↓ Return↓ Return↑ Shift_L↓ Shift_L↑ button↑");
}

// A session whose end the test decides, opened with input or without.
class ScriptedSession : public RecordingSession {
  public:
    explicit ScriptedSession(bool input) : input(input) {}

    const bool input;
};

using Sessions = RemoteDesktopSessions<ScriptedSession>;

// Each step: what happens to the session in use before it, what is asked for, what the opener
// answers if it is called ("" opens), and what comes out: whether the opener was called, and the
// denial's reason ("" for a session).
struct Step {
    std::optional<SessionEnd> endBefore;
    bool forRemoteControl;
    std::optional<SessionDenied> openerAnswer;
    bool opened;
    std::string denied;
};

void play(const std::vector<Step>& steps, const char* story) {
    SCOPED_TRACE(story);
    std::deque<std::optional<SessionDenied>> answers;
    int opens = 0;
    Sessions sessions([&](bool forRemoteControl) -> Sessions::Opened {
        ++opens;
        auto answer = answers.front();
        answers.pop_front();
        if (answer) {
            return *answer;
        }
        return std::make_shared<ScriptedSession>(forRemoteControl);
    });
    std::shared_ptr<ScriptedSession> last;
    for (std::size_t i = 0; i < steps.size(); ++i) {
        const auto& step = steps[i];
        SCOPED_TRACE("step " + std::to_string(i));
        if (step.endBefore && last) {
            last->end = *step.endBefore;
        }
        answers = {step.openerAnswer};
        const int before = opens;
        auto result = sessions.current(step.forRemoteControl);
        EXPECT_EQ(opens - before, step.opened ? 1 : 0);
        if (auto* denied = std::get_if<SessionDenied>(&result)) {
            EXPECT_EQ(denied->reason, step.denied);
        } else {
            EXPECT_EQ(step.denied, "");
            last = std::get<std::shared_ptr<ScriptedSession>>(result);
            EXPECT_TRUE(last->input || !step.forRemoteControl);
        }
    }
}

TEST(RemoteDesktopSessionsTest, OnlyACompositorThatWentIsAskedAgainUnasked) {
    const std::string stopped = Sessions::kStoppedAtDevice;
    const SessionDenied declined{"declined", true};
    const SessionDenied busy{"no bus", false};
    play({{{}, false, {}, true, ""},
          {{}, false, {}, false, ""},
          {{}, true, {}, true, ""},  // the keyboard and pointer need a session that has them
          {{}, false, {}, false, ""}},
         "one session for the screen, one more once input is wanted, then that one for both");
    play({{{}, true, {}, true, ""},
          {SessionEnd::compositorGone, true, {}, true, ""},
          {{}, false, {}, false, ""}},
         "a restarted compositor: the same consent, a new session");
    play({{{}, true, {}, true, ""},
          {SessionEnd::stoppedAtDevice, false, {}, false, stopped},
          {{}, true, {}, false, stopped}},
         "stopped at the device: nothing is opened again");
    play({{{}, true, declined, true, "declined"},
          {{}, true, {}, false, "declined"},
          {{}, false, {}, false, "declined"}},
         "their no stands");
    play({{{}, false, busy, true, "no bus"}, {{}, false, {}, true, ""}},
         "a failure that was not theirs is tried again");
}

}  // namespace
}  // namespace velmorand
