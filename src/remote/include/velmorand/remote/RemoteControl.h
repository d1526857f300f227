#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "velmorand/platform/DesktopShell.h"
#include "velmorand/platform/InputInjector.h"
#include "velmorand/platform/Pasteboard.h"
#include "velmorand/platform/WindowCloser.h"
#include "velmorand/relay/Control.h"

namespace velmorand {

// Carries out viewers' remote-control commands on the desktop, in the order they came, on a
// thread of its own: gestures take time, and the relay link must not wait for them. Coordinates
// are screen pixels, clamped to the screen; durations are held to 0 to 10 seconds. Nothing a
// viewer sends can leave a button or key held, or keep the desktop busy after it has gone: a
// touch that is not let go within 10 seconds is released, a command that waited too long is
// refused, what may wait is bounded in count, bytes, gesture time and text, and cancel() (the
// viewers left) or the end of the control drops what waits and lets go of everything.
class RemoteControl {
  public:
    static constexpr std::chrono::milliseconds kLongestGesture{10'000};
    // A command that waited longer than this is refused: the viewer has seen nothing happen for
    // so long that it has moved on.
    static constexpr std::chrono::milliseconds kLongestWait{3'000};
    // Typing one text stops after this long, however many characters are left.
    static constexpr std::chrono::milliseconds kLongestTyping{10'000};
    // A swipe moves the pointer about this often.
    static constexpr std::chrono::milliseconds kSwipeStep{8};
    // Well within any desktop's double-click interval.
    static constexpr std::chrono::milliseconds kDoubleClickGap{60};
    static constexpr std::size_t kMaxTextCharacters = 10'000;
    static constexpr std::size_t kMaxClipboardBytes = 1024 * 1024;
    // Commands waiting their turn, by count and by the bytes they carry.
    static constexpr std::size_t kMaxWaiting = 256;
    static constexpr std::size_t kMaxWaitingBytes = 160 * 1024 * 1024;
    // The gestures' own durations, summed over those waiting.
    static constexpr std::chrono::milliseconds kMaxWaitingGestureTime{10'000};
    // Characters of text and key commands waiting, counted as UTF-8 bytes.
    static constexpr std::size_t kMaxWaitingTextBytes = 64 * 1024;
    // Files pushed in one broadcast, by count and by bytes, and the free space they must leave.
    static constexpr std::size_t kMaxPushedFiles = 100;
    static constexpr std::uintmax_t kMaxPushedBytes = 512ULL * 1024 * 1024;
    static constexpr std::uintmax_t kMinFreeBytes = 1024ULL * 1024 * 1024;

    struct Services {
        InputInjector& input;
        Pasteboard& clipboard;
        DesktopShell& shell;
        WindowCloser& windows;
    };

    // What became of one command: carried out (with what it did, if worth saying), or refused.
    struct Outcome {
        std::optional<std::string> refusal;
        std::string detail;

        bool operator==(const Outcome&) const = default;
    };
    // Once per command, on the control's thread (or the caller's, for a command refused because
    // too many are waiting).
    using Report = std::function<void(const Control& control, const Outcome& outcome)>;

    // The time limits; tests shorten them, for they cannot wait seconds.
    struct Limits {
        std::chrono::milliseconds longestTouch = kLongestGesture;
        std::chrono::milliseconds longestWait = kLongestWait;
        std::chrono::milliseconds longestTyping = kLongestTyping;
    };

    RemoteControl(Services services, Report report);
    RemoteControl(Services services, Report report, Limits limits);
    ~RemoteControl();
    RemoteControl(const RemoteControl&) = delete;
    RemoteControl& operator=(const RemoteControl&) = delete;

    // Any thread.
    void execute(Control control);
    // Any thread: drops every command still waiting, ends the one under way at its next step and
    // lets go of every key and button, without waiting for it. Returns how many were dropped.
    std::size_t cancel();

  private:
    using Clock = std::chrono::steady_clock;

    struct Point {
        int x = 0;
        int y = 0;
    };
    // What one waiting command counts against the bounds.
    struct Weight {
        std::size_t bytes = 0;
        std::chrono::milliseconds gesture{0};
        std::size_t text = 0;
    };
    struct Waiting {
        Control control;
        Weight weight;
        Clock::time_point since;
    };

    static Weight weigh(const Control& control);
    void run();
    Outcome carryOut(const Control& control);
    Outcome click(const Point& at, int times);
    Outcome press(const Point& at, std::chrono::milliseconds hold);
    Outcome swipe(const Control::Swipe& swipe);
    Outcome touch(const Point& at, std::optional<bool> press);
    Outcome type(const std::string& text);
    Outcome key(const std::string& name);
    Outcome button(const std::string& name);
    Outcome openUrl(const std::string& url);
    Outcome launchApp(const std::string& id);
    Outcome killApp(const std::string& id);
    Outcome setClipboard(const std::string& text);
    Outcome pushMedia(const Control::PushMedia& media);

    Point onScreen(double x, double y);
    // Sleeps, unless the control is ending or cancelled meanwhile; false then.
    bool pause(std::chrono::milliseconds duration);
    // Whether the control is ending, or was cancelled since the current command began.
    bool interrupted();
    void releaseHeld();
    void take(const Weight& weight);

    Services services_;
    Report report_;
    const Limits limits_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Waiting> waiting_;
    Weight waitingWeight_;
    bool stopping_ = false;
    // Counts cancel() calls.
    std::uint64_t cancels_ = 0;

    // The control's thread only.
    bool buttonHeld_ = false;
    Point lastPoint_;
    // The cancels already acted on.
    std::uint64_t cancelsSeen_ = 0;
    std::size_t pushedFiles_ = 0;
    std::uintmax_t pushedBytes_ = 0;

    std::thread thread_;
};

}  // namespace velmorand
