#include "velmorand/remote/RemoteControl.h"

#include <algorithm>
#include <cmath>
#include <type_traits>
#include <utility>
#include <variant>

#include "velmorand/platform/Text.h"
#include "velmorand/platform/UrlComponents.h"
#include "velmorand/remote/KeyCombination.h"
#include "velmorand/remote/PushedFile.h"

namespace velmorand {
namespace {

using Outcome = RemoteControl::Outcome;
using std::chrono::milliseconds;

Outcome done(std::string detail = {}) {
    return {std::nullopt, std::move(detail)};
}

Outcome refused(std::string why) {
    return {std::move(why), {}};
}

milliseconds bounded(std::int64_t ms) {
    return milliseconds(std::clamp<std::int64_t>(ms, 0, RemoteControl::kLongestGesture.count()));
}

// "3 s", or "20 ms" for what is not whole seconds.
std::string durationText(milliseconds duration) {
    return duration.count() % 1000 == 0 ? std::to_string(duration.count() / 1000) + " s"
                                        : std::to_string(duration.count()) + " ms";
}

// A desktop entry id as the desktop looks it up: "org.example.App.desktop".
std::optional<std::string> desktopId(const std::string& id) {
    if (id.empty() || id.front() == '.' || id.find_first_of("/\\") != std::string::npos ||
        !isValidUtf8(id)) {
        return std::nullopt;
    }
    return id.ends_with(".desktop") ? id : id + ".desktop";
}

}  // namespace

RemoteControl::RemoteControl(Services services, Report report)
    : RemoteControl(services, std::move(report), Limits{}) {}

RemoteControl::RemoteControl(Services services, Report report, Limits limits)
    : services_(services), report_(std::move(report)), limits_(limits) {
    thread_ = std::thread([this] { run(); });
}

RemoteControl::~RemoteControl() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

// What a waiting command holds in memory (near enough), the time its gesture takes, and the text
// it types.
RemoteControl::Weight RemoteControl::weigh(const Control& control) {
    return std::visit(
        [](const auto& command) -> Weight {
            using C = std::decay_t<decltype(command)>;
            if constexpr (std::is_same_v<C, Control::PushMedia>) {
                return {command.fileName.size() + command.mime.size() + command.dataB64.size()};
            } else if constexpr (std::is_same_v<C, Control::Text>) {
                return {command.text.size(), {}, command.text.size()};
            } else if constexpr (std::is_same_v<C, Control::Key>) {
                return {command.key.size(), {}, command.key.size()};
            } else if constexpr (std::is_same_v<C, Control::SetClipboard>) {
                return {command.text.size()};
            } else if constexpr (std::is_same_v<C, Control::Button>) {
                return {command.button.size()};
            } else if constexpr (std::is_same_v<C, Control::OpenURL>) {
                return {command.url.size()};
            } else if constexpr (std::is_same_v<C, Control::LaunchApp> ||
                                 std::is_same_v<C, Control::KillApp>) {
                return {command.bundleId.size()};
            } else if constexpr (std::is_same_v<C, Control::LongPress> ||
                                 std::is_same_v<C, Control::Swipe>) {
                return {0, bounded(command.ms)};
            } else if constexpr (std::is_same_v<C, Control::DoubleTap>) {
                return {0, kDoubleClickGap};
            } else {
                return {};
            }
        },
        control.command);
}

void RemoteControl::execute(Control control) {
    const Weight weight = weigh(control);
    std::optional<std::string> refusal;
    {
        std::lock_guard lock(mutex_);
        if (waiting_.size() >= kMaxWaiting ||
            waitingWeight_.bytes + weight.bytes > kMaxWaitingBytes) {
            refusal = "too many commands are waiting";
        } else if (waitingWeight_.gesture + weight.gesture > kMaxWaitingGestureTime) {
            refusal =
                "more than " + durationText(kMaxWaitingGestureTime) + " of gestures are waiting";
        } else if (waitingWeight_.text + weight.text > kMaxWaitingTextBytes) {
            refusal = "more than 64 KiB of text is waiting";
        } else {
            waitingWeight_.bytes += weight.bytes;
            waitingWeight_.gesture += weight.gesture;
            waitingWeight_.text += weight.text;
            waiting_.push_back({std::move(control), weight, Clock::now()});
            changed_.notify_all();
            return;
        }
    }
    report_(control, refused(*refusal));
}

std::size_t RemoteControl::cancel() {
    std::size_t dropped = 0;
    {
        std::lock_guard lock(mutex_);
        dropped = waiting_.size();
        waiting_.clear();
        waitingWeight_ = {};
        ++cancels_;
    }
    changed_.notify_all();
    return dropped;
}

void RemoteControl::run() {
    std::unique_lock lock(mutex_);
    const auto ready = [this] {
        return stopping_ || !waiting_.empty() || cancels_ != cancelsSeen_;
    };
    for (;;) {
        if (!buttonHeld_) {
            changed_.wait(lock, ready);
        } else if (!changed_.wait_for(lock, limits_.longestTouch, ready)) {
            lock.unlock();
            releaseHeld();
            report_(Control{Control::TouchUp{static_cast<double>(lastPoint_.x),
                                             static_cast<double>(lastPoint_.y)}},
                    done("no touch_up came within 10 s: let go"));
            lock.lock();
            continue;
        }
        if (stopping_) {
            break;
        }
        if (cancels_ != cancelsSeen_) {
            cancelsSeen_ = cancels_;
            lock.unlock();
            releaseHeld();
            lock.lock();
            continue;
        }
        Waiting next = std::move(waiting_.front());
        waiting_.pop_front();
        take(next.weight);
        lock.unlock();
        if (Clock::now() - next.since > limits_.longestWait) {
            report_(next.control, refused("waited more than " + durationText(limits_.longestWait)));
        } else if (interrupted()) {
            // Cancelled as it was taken: it goes the way of those that still waited.
            report_(next.control, refused("cancelled before it ran"));
        } else {
            report_(next.control, carryOut(next.control));
        }
        lock.lock();
    }
    lock.unlock();
    releaseHeld();
}

void RemoteControl::take(const Weight& weight) {
    waitingWeight_.bytes -= weight.bytes;
    waitingWeight_.gesture -= weight.gesture;
    waitingWeight_.text -= weight.text;
}

Outcome RemoteControl::carryOut(const Control& control) {
    return std::visit(
        [this](const auto& c) -> Outcome {
            using C = std::decay_t<decltype(c)>;
            if constexpr (std::is_same_v<C, Control::Tap>) {
                return click(onScreen(c.x, c.y), 1);
            } else if constexpr (std::is_same_v<C, Control::DoubleTap>) {
                return click(onScreen(c.x, c.y), 2);
            } else if constexpr (std::is_same_v<C, Control::LongPress>) {
                return press(onScreen(c.x, c.y), bounded(c.ms));
            } else if constexpr (std::is_same_v<C, Control::Swipe>) {
                return swipe(c);
            } else if constexpr (std::is_same_v<C, Control::TouchDown>) {
                return touch(onScreen(c.x, c.y), true);
            } else if constexpr (std::is_same_v<C, Control::TouchMove>) {
                return touch(onScreen(c.x, c.y), std::nullopt);
            } else if constexpr (std::is_same_v<C, Control::TouchUp>) {
                return touch(onScreen(c.x, c.y), false);
            } else if constexpr (std::is_same_v<C, Control::Text>) {
                return type(c.text);
            } else if constexpr (std::is_same_v<C, Control::Key>) {
                return key(c.key);
            } else if constexpr (std::is_same_v<C, Control::Button>) {
                return button(c.button);
            } else if constexpr (std::is_same_v<C, Control::OpenURL>) {
                return openUrl(c.url);
            } else if constexpr (std::is_same_v<C, Control::LaunchApp>) {
                return launchApp(c.bundleId);
            } else if constexpr (std::is_same_v<C, Control::KillApp>) {
                return killApp(c.bundleId);
            } else if constexpr (std::is_same_v<C, Control::SetClipboard>) {
                return setClipboard(c.text);
            } else {
                return pushMedia(c);
            }
        },
        control.command);
}

RemoteControl::Point RemoteControl::onScreen(double x, double y) {
    const ScreenSize screen = services_.input.screenSize();
    const auto axis = [](double value, int side) {
        const double edge = std::max(0, side - 1);
        return static_cast<int>(
            std::lround(std::clamp(std::isnan(value) ? 0.0 : value, 0.0, edge)));
    };
    lastPoint_ = {axis(x, screen.width), axis(y, screen.height)};
    return lastPoint_;
}

bool RemoteControl::pause(milliseconds duration) {
    std::unique_lock lock(mutex_);
    return !changed_.wait_for(lock, duration,
                              [this] { return stopping_ || cancels_ != cancelsSeen_; });
}

bool RemoteControl::interrupted() {
    std::lock_guard lock(mutex_);
    return stopping_ || cancels_ != cancelsSeen_;
}

void RemoteControl::releaseHeld() {
    if (std::exchange(buttonHeld_, false)) {
        services_.input.setLeftButton(false);
        services_.input.flush();
    }
}

Outcome RemoteControl::click(const Point& at, int times) {
    releaseHeld();
    auto& input = services_.input;
    input.movePointer(at.x, at.y);
    for (int i = 0; i < times; ++i) {
        input.setLeftButton(true);
        input.setLeftButton(false);
        input.flush();
        if (i + 1 < times && !pause(kDoubleClickGap)) {
            break;
        }
    }
    return done();
}

Outcome RemoteControl::press(const Point& at, milliseconds hold) {
    releaseHeld();
    auto& input = services_.input;
    input.movePointer(at.x, at.y);
    input.setLeftButton(true);
    input.flush();
    buttonHeld_ = true;
    const bool held = pause(hold);
    releaseHeld();
    return done(held ? "held " + std::to_string(hold.count()) + " ms" : std::string("cut short"));
}

Outcome RemoteControl::swipe(const Control::Swipe& swipe) {
    releaseHeld();
    auto& input = services_.input;
    const Point from = onScreen(swipe.from.x, swipe.from.y);
    const Point to = onScreen(swipe.to.x, swipe.to.y);
    const milliseconds duration = bounded(swipe.ms);
    const auto steps = std::max<std::int64_t>(1, duration / kSwipeStep);
    input.movePointer(from.x, from.y);
    input.setLeftButton(true);
    input.flush();
    buttonHeld_ = true;
    bool whole = true;
    for (std::int64_t step = 1; step <= steps && whole; ++step) {
        if (!(whole = pause(duration / steps))) {
            break;
        }
        const double along = static_cast<double>(step) / static_cast<double>(steps);
        input.movePointer(static_cast<int>(std::lround(from.x + (to.x - from.x) * along)),
                          static_cast<int>(std::lround(from.y + (to.y - from.y) * along)));
        input.flush();
    }
    input.movePointer(to.x, to.y);
    releaseHeld();
    return whole ? done() : done("cut short");
}

Outcome RemoteControl::touch(const Point& at, std::optional<bool> press) {
    auto& input = services_.input;
    input.movePointer(at.x, at.y);
    if (press == true && !buttonHeld_) {
        input.setLeftButton(true);
        buttonHeld_ = true;
    } else if (press == false) {
        if (!buttonHeld_) {
            input.flush();
            return done("nothing was held");
        }
        releaseHeld();
    }
    input.flush();
    return done();
}

Outcome RemoteControl::type(const std::string& text) {
    const auto points = codePoints(text, kMaxTextCharacters);
    if (!points) {
        return refused("more than 10,000 characters");
    }
    auto& input = services_.input;
    std::size_t untypable = 0;
    std::size_t typed = 0;
    std::string stopped;
    const auto deadline = Clock::now() + limits_.longestTyping;
    for (const char32_t point : *points) {
        if (interrupted()) {
            stopped = "cut short";
            break;
        }
        if (Clock::now() > deadline) {
            stopped = "stopped after " + durationText(limits_.longestTyping);
            break;
        }
        ++typed;
        if (point == U'\n' || point == U'\t') {
            const NamedKey named = point == U'\n' ? NamedKey::enter : NamedKey::tab;
            input.setKey(named, true);
            input.setKey(named, false);
        } else if (point != U'\r' && !input.typeCharacter(point)) {
            ++untypable;
        }
    }
    if (!stopped.empty()) {
        input.discardUnsent();
    }
    input.flush();
    std::string detail = untypable > 0 ? std::to_string(untypable) + " with no key" : "";
    if (!stopped.empty()) {
        detail += (detail.empty() ? "" : ", ") + stopped + ": " + std::to_string(typed) + " of " +
                  std::to_string(points->size()) + " typed";
    }
    return done(std::move(detail));
}

Outcome RemoteControl::key(const std::string& name) {
    const auto combination = KeyCombination::parse(name);
    if (!combination) {
        return refused("not a key name");
    }
    auto& input = services_.input;
    for (const NamedKey modifier : combination->modifiers) {
        input.setKey(modifier, true);
    }
    bool typed = true;
    if (const auto* named = std::get_if<NamedKey>(&combination->key)) {
        input.setKey(*named, true);
        input.setKey(*named, false);
    } else {
        const char32_t character = std::get<char32_t>(combination->key);
        typed = input.setCharacterKey(character, true) && input.setCharacterKey(character, false);
    }
    for (auto modifier = combination->modifiers.rbegin(); modifier != combination->modifiers.rend();
         ++modifier) {
        input.setKey(*modifier, false);
    }
    input.flush();
    return typed ? done() : refused("no key types it");
}

Outcome RemoteControl::button(const std::string& name) {
    const auto key = deviceButton(name);
    if (!key) {
        return refused("not a button name");
    }
    services_.input.setKey(*key, true);
    services_.input.setKey(*key, false);
    services_.input.flush();
    return done();
}

Outcome RemoteControl::openUrl(const std::string& url) {
    const auto parts = UrlComponents::parse(url);
    std::string scheme = parts ? parts->scheme : std::string();
    std::transform(scheme.begin(), scheme.end(), scheme.begin(), [](char c) {
        return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
    });
    if (scheme != "http" && scheme != "https") {
        return refused("only http and https URLs are opened");
    }
    const auto error = services_.shell.openUrl(url);
    return error ? refused(*error) : done();
}

Outcome RemoteControl::launchApp(const std::string& id) {
    const auto entry = desktopId(id);
    if (!entry) {
        return refused("not a desktop entry id");
    }
    const auto error = services_.shell.launch(*entry);
    return error ? refused(*error) : done();
}

Outcome RemoteControl::killApp(const std::string& id) {
    const auto entry = desktopId(id);
    if (!entry) {
        return refused("not a desktop entry id");
    }
    auto classes = services_.shell.windowClasses(*entry);
    if (!classes) {
        return refused("no installed application has this id");
    }
    classes->push_back(entry->substr(0, entry->size() - std::string_view(".desktop").size()));
    const auto closing = services_.windows.closeWindows(*classes);
    if (!closing) {
        return refused("this desktop offers no way to ask its windows to close");
    }
    const std::size_t asked = *closing;
    return done(asked == 0   ? std::string("no open window")
                : asked == 1 ? std::string("1 window asked to close")
                             : std::to_string(asked) + " windows asked to close");
}

Outcome RemoteControl::setClipboard(const std::string& text) {
    if (text.size() > kMaxClipboardBytes) {
        return refused("larger than 1 MiB");
    }
    if (!services_.clipboard.available()) {
        return refused("this desktop offers no clipboard to set");
    }
    services_.clipboard.setString(text);
    return done();
}

Outcome RemoteControl::pushMedia(const Control::PushMedia& media) {
    if (pushedFiles_ >= kMaxPushedFiles) {
        return refused("this broadcast has saved its quota of 100 files already");
    }
    const auto bytes = PushedFile::decodeBase64(media.dataB64);
    if (!bytes) {
        return refused("the data is not base64, or is larger than 64 MiB");
    }
    if (pushedBytes_ + bytes->size() > kMaxPushedBytes) {
        return refused("it would take this broadcast past its quota of 512 MiB of files");
    }
    const auto saved =
        PushedFile::save(services_.shell.downloadsDirectory(), PushedFile::safeName(media.fileName),
                         *bytes, kMinFreeBytes);
    if (const auto* error = std::get_if<std::string>(&saved)) {
        return refused(*error);
    }
    ++pushedFiles_;
    pushedBytes_ += bytes->size();
    return done("saved as " + std::get<std::filesystem::path>(saved).string() + " (" +
                std::to_string(bytes->size()) + " bytes)");
}

}  // namespace velmorand
