// Viewers' commands as the desktop receives them, over a recording stand-in for its input, shell
// and windows; key names, pushed files and base64 on their own.
#include <gtest/gtest.h>

#include <condition_variable>
#include <fstream>
#include <mutex>
#include <sstream>
#include <thread>

#include "TempDir.h"
#include "velmorand/remote/KeyCombination.h"
#include "velmorand/remote/PushedFile.h"
#include "velmorand/remote/RemoteControl.h"

namespace velmorand {
namespace {

using Lines = std::vector<std::string>;

std::string contents(const std::filesystem::path& path) {
    return (std::ostringstream() << std::ifstream(path).rdbuf()).str();
}

TEST(KeyCombination, NamesIgnoreCaseAndSpaceAndEndInOneKey) {
    using K = NamedKey;
    const std::vector<std::pair<std::string, std::optional<KeyCombination>>> rows = {
        {"enter", KeyCombination{{}, K::enter}},
        {" Return ", KeyCombination{{}, K::enter}},
        {"ctrl+c", KeyCombination{{K::control}, U'c'}},
        {"CTRL + Shift + T", KeyCombination{{K::control, K::shift}, U't'}},
        {"alt+f4", KeyCombination{{K::alt}, K::f4}},
        // The keys that move through a text, each by its own name.
        {"home", KeyCombination{{}, K::home}},
        {"shift+End", KeyCombination{{K::shift}, K::end}},
        {"ctrl+pageup", KeyCombination{{K::control}, K::pageUp}},
        {"PageDown", KeyCombination{{}, K::pageDown}},
        {"alt+left", KeyCombination{{K::alt}, K::left}},
        {"control+super+é", KeyCombination{{K::control, K::super}, U'é'}},
        {"+", KeyCombination{{}, U'+'}},
        {"ctrl++", KeyCombination{{K::control}, U'+'}},
        {"", std::nullopt},
        {"c+ctrl", std::nullopt},
        {"ctrl+", std::nullopt},
        {"ctrl++a", std::nullopt},
        {"\xff", std::nullopt},
    };
    for (const auto& [name, expected] : rows) {
        EXPECT_EQ(KeyCombination::parse(name), expected) << name;
    }
    EXPECT_EQ(deviceButton("Home"), K::super);
    EXPECT_EQ(deviceButton("volumeUp"), K::volumeUp);
    EXPECT_EQ(deviceButton("power"), std::nullopt);
}

TEST(PushedFile, NamesAreBaseNamesWithoutLeadingDotsAndNothingIsOverwritten) {
    const std::vector<std::pair<std::string, std::string>> names = {
        {"photo.png", "photo.png"},
        {"../../.bashrc", "bashrc"},
        {"line\nbreak\x7f.txt", "line_break_.txt"},
        {std::string(300, 'n') + ".jpeg", std::string(250, 'n') + ".jpeg"},
        {"caf\xc3\xa9.txt", "caf\xc3\xa9.txt"},
        // U+202E turns "gpj.exe" around on screen; U+200B and U+FEFF are invisible.
        {"invoice\xe2\x80\xaegpj.exe", "invoicegpj.exe"},
        {"\xe2\x80\x8b.\xef\xbb\xbfprofile", "profile"},
        // U+009B starts a terminal escape; U+2028 and U+2029 break a listing's lines.
        {"a\xc2\x9b"
         "31mb\xe2\x80\xa8"
         "c\xe2\x80\xa9.txt",
         "a31mbc.txt"},
        {"bad\xff.txt", "file"},
    };
    for (const auto& [given, safe] : names) {
        EXPECT_EQ(PushedFile::safeName(given), safe) << given;
    }

    const testing::TempDir dir;
    const auto downloads = std::filesystem::path(dir.path()) / "Downloads";
    Lines written;
    for (const auto* content : {"one", "two", "three"}) {
        const auto saved = PushedFile::save(downloads, "notes.txt", content);
        ASSERT_TRUE(std::holds_alternative<std::filesystem::path>(saved));
        written.push_back(std::get<std::filesystem::path>(saved).filename().string());
    }
    EXPECT_EQ(written, (Lines{"notes.txt", "notes (2).txt", "notes (3).txt"}));
    EXPECT_EQ(contents(downloads / "notes.txt"), "one");

    // A name at the length limit makes room for its number.
    const std::string longest = std::string(251, 'l') + ".txt";
    for (const auto* expected : {"", " (2)"}) {
        const auto saved = PushedFile::save(downloads, longest, "x");
        ASSERT_TRUE(std::holds_alternative<std::filesystem::path>(saved))
            << std::get<std::string>(saved);
        const auto name = std::get<std::filesystem::path>(saved).filename().string();
        EXPECT_LE(name.size(), 255u);
        EXPECT_TRUE(name.ends_with(std::string(expected) + ".txt")) << name;
    }

    const auto full = PushedFile::save(downloads, "big.bin", "x", UINTMAX_MAX / 2);
    ASSERT_TRUE(std::holds_alternative<std::string>(full));
    EXPECT_TRUE(std::get<std::string>(full).starts_with("it would leave less than "))
        << std::get<std::string>(full);
}

TEST(PushedFile, Base64IsStrictAndBounded) {
    const std::vector<std::pair<std::string, std::optional<std::string>>> rows = {
        {"", ""},
        {"QUJD", "ABC"},
        {"QUI", "AB"},
        {"Q Q=\r\n=", "A"},
        {"/+8=", "\xff\xef"},
        {"QUJ", std::nullopt},  // leftover bits that are not zero
        {"QUJDRA", "ABCD"},
    };
    for (const auto& [text, bytes] : rows) {
        EXPECT_EQ(PushedFile::decodeBase64(text), bytes) << text;
    }
    EXPECT_EQ(PushedFile::decodeBase64("QUJD", 3), "ABC");
    EXPECT_EQ(PushedFile::decodeBase64("QUJDRA==", 3), std::nullopt);
}

// Records every call as a line; a 200x100 screen.
struct RecordingDesktop : InputInjector, Pasteboard, DesktopShell, WindowCloser {
    ScreenSize screenSize() override { return {200, 100}; }
    void movePointer(int x, int y) override {
        note("move " + std::to_string(x) + "," + std::to_string(y));
    }
    void setLeftButton(bool pressed) override { note(pressed ? "press" : "release"); }
    void setKey(NamedKey key, bool pressed) override {
        note("key " + std::to_string(static_cast<int>(key)) + (pressed ? " down" : " up"));
    }
    bool typeCharacter(char32_t c) override {
        std::this_thread::sleep_for(typingTime);
        note("type " + std::to_string(static_cast<std::uint32_t>(c)));
        return c != U'\U0001F600';
    }
    bool setCharacterKey(char32_t c, bool pressed) override {
        note("char " + std::to_string(static_cast<std::uint32_t>(c)) + (pressed ? " down" : " up"));
        return true;
    }
    void flush() override {}
    void discardUnsent() override { note("discard unsent"); }
    void setString(std::string_view text) override { note("clipboard " + std::string(text)); }
    std::optional<std::string> openUrl(const std::string& url) override {
        note("open " + url);
        return std::nullopt;
    }
    std::optional<std::string> launch(const std::string& id) override {
        note("launch " + id);
        return id == "broken.desktop" ? std::optional<std::string>("it would not start")
                                      : std::nullopt;
    }
    std::optional<Lines> windowClasses(const std::string& id) override {
        return id == "org.example.Editor.desktop" ? std::optional(Lines{"ExampleEditor"})
                                                  : std::nullopt;
    }
    std::filesystem::path downloadsDirectory() override { return downloads; }
    std::optional<std::size_t> closeWindows(const std::vector<std::string>& classes) override {
        std::string joined;
        for (const auto& name : classes) {
            joined += " " + name;
        }
        note("close" + joined);
        return windowsAskedToClose;
    }

    // Absent: a desktop that offers no way to ask windows to close.
    std::optional<std::size_t> windowsAskedToClose = 2;

    void note(std::string line) {
        std::lock_guard lock(mutex);
        calls.push_back(std::move(line));
    }
    // The calls since the last look.
    Lines recorded() {
        std::lock_guard lock(mutex);
        return std::exchange(calls, {});
    }

    std::mutex mutex;
    Lines calls;
    std::filesystem::path downloads;
    std::chrono::milliseconds typingTime{0};
};

class RemoteControlTest : public ::testing::Test {
  protected:
    RemoteControlTest() { desktop_.downloads = std::filesystem::path(dir_.path()) / "Downloads"; }

    // Runs one command to its end; what the desktop was asked, and the outcome.
    std::pair<Lines, RemoteControl::Outcome> run(const Control::Command& command) {
        desktop_.recorded();
        const auto before = outcomes();
        control_.execute(Control{command});
        waitForOutcomes(before + 1);
        std::lock_guard lock(mutex_);
        return {desktop_.recorded(), outcomes_.back()};
    }
    std::size_t outcomes() {
        std::lock_guard lock(mutex_);
        return outcomes_.size();
    }
    bool waitForOutcomes(std::size_t count) {
        std::unique_lock lock(mutex_);
        return reported_.wait_for(lock, std::chrono::seconds(5),
                                  [&] { return outcomes_.size() >= count; });
    }
    void waitForCalls(std::size_t count) {
        while (true) {
            std::lock_guard lock(desktop_.mutex);
            if (desktop_.calls.size() >= count) {
                return;
            }
        }
    }

    testing::TempDir dir_;
    RecordingDesktop desktop_;
    std::mutex mutex_;
    std::condition_variable reported_;
    std::vector<RemoteControl::Outcome> outcomes_;
    RemoteControl::Report recorder() {
        return [this](const Control&, const RemoteControl::Outcome& outcome) {
            std::lock_guard lock(mutex_);
            outcomes_.push_back(outcome);
            reported_.notify_all();
        };
    }
    RemoteControl control_{{desktop_, desktop_, desktop_, desktop_}, recorder()};
};

TEST_F(RemoteControlTest, GesturesLandOnTheScreenInOrder) {
    using C = Control;
    const std::vector<std::tuple<C::Command, Lines, std::string>> rows = {
        {C::Tap{10.4, 20.6}, {"move 10,21", "press", "release"}, ""},
        {C::Tap{-5, 1e9}, {"move 0,99", "press", "release"}, ""},
        {C::DoubleTap{199, 0}, {"move 199,0", "press", "release", "press", "release"}, ""},
        {C::LongPress{5, 5, -20}, {"move 5,5", "press", "release"}, "held 0 ms"},
        {C::Swipe{{0, 0}, {80, 40}, 32},
         {"move 0,0", "press", "move 20,10", "move 40,20", "move 60,30", "move 80,40", "move 80,40",
          "release"},
         ""},
        {C::TouchDown{1, 2}, {"move 1,2", "press"}, ""},
        {C::TouchUp{5, 6}, {"move 5,6", "release"}, ""},
        {C::TouchUp{5, 6}, {"move 5,6"}, "nothing was held"},
        // A tap while a touch is held lets go of it first, rather than drag it to the tap.
        {C::TouchDown{1, 2}, {"move 1,2", "press"}, ""},
        {C::Tap{7, 8}, {"release", "move 7,8", "press", "release"}, ""},
        {C::TouchUp{5, 6}, {"move 5,6"}, "nothing was held"},
    };
    for (const auto& [command, calls, detail] : rows) {
        const auto [got, outcome] = run(command);
        EXPECT_EQ(got, calls) << Control{command}.name();
        EXPECT_EQ(outcome, (RemoteControl::Outcome{std::nullopt, detail}));
    }
}

TEST_F(RemoteControlTest, KeysTextAndDesktopActionsAreCarriedOutOrRefusedWithAReason) {
    using C = Control;
    const std::string enter = std::to_string(static_cast<int>(NamedKey::enter));
    const std::string control = std::to_string(static_cast<int>(NamedKey::control));
    const std::string shift = std::to_string(static_cast<int>(NamedKey::shift));
    const auto refused = [](std::string why) { return RemoteControl::Outcome{std::move(why), {}}; };
    const RemoteControl::Outcome done;
    const std::vector<std::tuple<C::Command, Lines, RemoteControl::Outcome>> rows = {
        {C::Text{"a\xc3\xa9\n\r"},
         {"type 97", "type 233", "key " + enter + " down", "key " + enter + " up"},
         done},
        {C::Text{"\xf0\x9f\x98\x80!"}, {"type 128512", "type 33"}, {std::nullopt, "1 with no key"}},
        {C::Text{std::string(10'001, 'x')}, {}, refused("more than 10,000 characters")},
        {C::Key{"ctrl+a"},
         {"key " + control + " down", "char 97 down", "char 97 up", "key " + control + " up"},
         done},
        {C::Key{"shift+enter"},
         {"key " + shift + " down", "key " + enter + " down", "key " + enter + " up",
          "key " + shift + " up"},
         done},
        {C::Key{"hyper+q"}, {}, refused("not a key name")},
        {C::Button{"power"}, {}, refused("not a button name")},
        {C::OpenURL{"HTTPS://example.org/a"}, {"open HTTPS://example.org/a"}, done},
        {C::OpenURL{"file:///etc/passwd"}, {}, refused("only http and https URLs are opened")},
        {C::LaunchApp{"org.example.Editor"}, {"launch org.example.Editor.desktop"}, done},
        {C::LaunchApp{"broken.desktop"}, {"launch broken.desktop"}, refused("it would not start")},
        {C::LaunchApp{"../evil"}, {}, refused("not a desktop entry id")},
        {C::KillApp{"org.example.Editor.desktop"},
         {"close ExampleEditor org.example.Editor"},
         {std::nullopt, "2 windows asked to close"}},
        {C::KillApp{"org.example.Missing"}, {}, refused("no installed application has this id")},
        {C::SetClipboard{std::string(1024 * 1024 + 1, 'x')}, {}, refused("larger than 1 MiB")},
        {C::PushMedia{"x.bin", "application/octet-stream", "not base64!"},
         {},
         refused("the data is not base64, or is larger than 64 MiB")},
    };
    for (const auto& [command, calls, outcome] : rows) {
        const auto [got, result] = run(command);
        EXPECT_EQ(got, calls) << Control{command}.name();
        EXPECT_EQ(result, outcome) << Control{command}.name();
    }

    desktop_.windowsAskedToClose = std::nullopt;
    EXPECT_EQ(run(C::KillApp{"org.example.Editor"}).second,
              refused("this desktop offers no way to ask its windows to close"));

    const auto path = desktop_.downloads / "hidden.txt";
    EXPECT_EQ(run(C::PushMedia{"../.hidden.txt", "text/plain", "aGk="}).second.detail,
              "saved as " + path.string() + " (2 bytes)");
    EXPECT_EQ(contents(path), "hi");
}

TEST_F(RemoteControlTest, ATouchNeverLetGoIsReleasedAfterTheLongestGesture) {
    RemoteControl quick({desktop_, desktop_, desktop_, desktop_}, recorder(),
                        {.longestTouch = std::chrono::milliseconds(20)});
    quick.execute(Control{Control::TouchDown{3, 4}});
    ASSERT_TRUE(waitForOutcomes(2));
    EXPECT_EQ(outcomes_[1],
              (RemoteControl::Outcome{std::nullopt, "no touch_up came within 10 s: let go"}));
    EXPECT_EQ(desktop_.recorded(), (Lines{"move 3,4", "press", "release"}));
}

// A viewer can queue work faster than the desktop does it: what may wait is bounded by count, by
// gesture time and by text, and once the viewers are gone nothing of it goes on.
TEST_F(RemoteControlTest, WhatWaitsIsBoundedAndEndsWithTheViewers) {
    using C = Control;
    // Holds the control's thread while the rest waits.
    control_.execute(Control{C::LongPress{1, 1, 60'000}});
    waitForCalls(2);
    const auto refusal = [this](const C::Command& command) {
        const auto before = outcomes();
        control_.execute(Control{command});
        std::lock_guard lock(mutex_);
        return outcomes_.size() > before ? outcomes_.back().refusal : std::nullopt;
    };
    const std::vector<std::tuple<C::Command, std::optional<std::string>>> rows = {
        {C::LongPress{1, 1, 9'990}, std::nullopt},
        {C::DoubleTap{1, 1}, "more than 10 s of gestures are waiting"},
        {C::Swipe{{0, 0}, {1, 1}, 10}, std::nullopt},
        {C::Swipe{{0, 0}, {1, 1}, 1}, "more than 10 s of gestures are waiting"},
        {C::Text{std::string(60 * 1024, 'a')}, std::nullopt},
        {C::Key{std::string(4 * 1024, 'k')}, std::nullopt},
        {C::Text{"x"}, "more than 64 KiB of text is waiting"},
        {C::Tap{1, 1}, std::nullopt},
    };
    for (const auto& [command, expected] : rows) {
        EXPECT_EQ(refusal(command), expected) << Control{command}.name();
    }
    for (std::size_t i = 4; i < RemoteControl::kMaxWaiting; ++i) {
        control_.execute(Control{C::TouchMove{1, 1}});
    }
    EXPECT_EQ(refusal(C::Tap{1, 1}), "too many commands are waiting");

    const auto before = outcomes();
    EXPECT_EQ(control_.cancel(), RemoteControl::kMaxWaiting);
    ASSERT_TRUE(waitForOutcomes(before + 1));
    EXPECT_EQ(outcomes_.back(), (RemoteControl::Outcome{std::nullopt, "cut short"}));
    // Nothing that waited was carried out, and the button was let go of.
    control_.execute(Control{C::Tap{7, 7}});
    ASSERT_TRUE(waitForOutcomes(before + 2));
    EXPECT_EQ(desktop_.recorded(),
              (Lines{"move 1,1", "press", "release", "move 7,7", "press", "release"}));
}

TEST_F(RemoteControlTest, StaleCommandsAreRefusedAndLongTypingStops) {
    desktop_.typingTime = std::chrono::milliseconds(2);
    RemoteControl quick({desktop_, desktop_, desktop_, desktop_}, recorder(),
                        {.longestWait = std::chrono::milliseconds(20),
                         .longestTyping = std::chrono::milliseconds(30)});
    quick.execute(Control{Control::LongPress{1, 1, 200}});
    quick.execute(Control{Control::Tap{5, 5}});
    quick.execute(Control{Control::Text{std::string(1000, 't')}});
    ASSERT_TRUE(waitForOutcomes(3));
    EXPECT_EQ(outcomes_[1].refusal, "waited more than 20 ms");
    EXPECT_EQ(outcomes_[2].refusal, "waited more than 20 ms");

    quick.execute(Control{Control::Text{std::string(1000, 't')}});
    ASSERT_TRUE(waitForOutcomes(4));
    EXPECT_TRUE(outcomes_[3].detail.starts_with("stopped after 30 ms: ")) << outcomes_[3].detail;
    EXPECT_TRUE(outcomes_[3].detail.ends_with(" of 1000 typed")) << outcomes_[3].detail;
    EXPECT_EQ(desktop_.recorded().back(), "discard unsent");
}

TEST_F(RemoteControlTest, PushedFilesHaveAQuotaPerBroadcast) {
    for (std::size_t i = 0; i < RemoteControl::kMaxPushedFiles; ++i) {
        ASSERT_EQ(run(Control::PushMedia{"f.txt", "text/plain", "eA=="}).second.refusal,
                  std::nullopt);
    }
    EXPECT_EQ(run(Control::PushMedia{"f.txt", "text/plain", "eA=="}).second.refusal,
              "this broadcast has saved its quota of 100 files already");
}

}  // namespace
}  // namespace velmorand
