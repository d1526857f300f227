#include "velmorand/wayland/RemoteDesktopSessions.h"

#include <gtest/gtest.h>

#include <deque>
#include <string>
#include <vector>

namespace velmorand {
namespace {

// A session whose end the test decides; what it does for input is never asked here.
class ScriptedSession : public RemoteDesktopSession {
  public:
    explicit ScriptedSession(bool input) : input(input) {}

    const bool input;
    SessionEnd end = SessionEnd::none;

    ScreenSize screenSize() const override { return {}; }
    SessionEnd ended() const override { return end; }
    void movePointer(double, double) override {}
    void setButton(std::int32_t, bool) override {}
    void setKeysym(std::uint32_t, bool) override {}
    void sync() override {}
    std::chrono::milliseconds pointerSettle() const override { return {}; }
    bool hasClipboard() const override { return false; }
    void offerText(std::string) override {}
    std::uint64_t pastes() const override { return 0; }
    bool waitForPaste(std::uint64_t, std::chrono::milliseconds) const override { return false; }
    std::optional<std::string> readText() override { return std::nullopt; }
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
