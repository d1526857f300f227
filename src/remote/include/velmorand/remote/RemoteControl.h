#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
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
// viewer sends can leave a button or key held: a touch that is not let go within 10 seconds is
// released, and so is everything when the control ends.
class RemoteControl {
  public:
    static constexpr std::chrono::milliseconds kLongestGesture{10'000};
    // A swipe moves the pointer about this often.
    static constexpr std::chrono::milliseconds kSwipeStep{8};
    // Well within any desktop's double-click interval.
    static constexpr std::chrono::milliseconds kDoubleClickGap{60};
    static constexpr std::size_t kMaxTextCharacters = 10'000;
    static constexpr std::size_t kMaxClipboardBytes = 1024 * 1024;
    // Commands waiting their turn, by count and by the bytes they carry.
    static constexpr std::size_t kMaxWaiting = 256;
    static constexpr std::size_t kMaxWaitingBytes = 160 * 1024 * 1024;

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

    // `longestTouch` is kLongestGesture but for tests, which cannot wait 10 seconds.
    RemoteControl(Services services, Report report,
                  std::chrono::milliseconds longestTouch = kLongestGesture);
    ~RemoteControl();
    RemoteControl(const RemoteControl&) = delete;
    RemoteControl& operator=(const RemoteControl&) = delete;

    // Any thread.
    void execute(Control control);

  private:
    struct Point {
        int x = 0;
        int y = 0;
    };

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
    // Sleeps, unless the control is ending; false then.
    bool pause(std::chrono::milliseconds duration);
    void releaseHeld();

    Services services_;
    Report report_;
    const std::chrono::milliseconds longestTouch_;

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Control> waiting_;
    std::size_t waitingBytes_ = 0;
    bool stopping_ = false;

    // The control's thread only.
    bool buttonHeld_ = false;
    Point lastPoint_;

    std::thread thread_;
};

}  // namespace velmorand
