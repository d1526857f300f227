#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <utility>
#include <variant>

#include "velmorand/wayland/RemoteDesktopSession.h"

namespace velmorand {

// A compositor's remote-desktop session (GNOME's own, or the portal's) as a broadcast keeps it,
// shared by the capture and the remote control. Opened again when its compositor went away (it
// restarted); never when the person at the device stopped sharing it or said no to it: that
// stands until the next broadcast. Any thread; one opens at a time, so that the person is never
// asked twice at once.
template <typename Session>
class RemoteDesktopSessions {
  public:
    using Opened = std::variant<std::shared_ptr<Session>, SessionDenied>;
    // Opens a session: for remote control, one with the keyboard and pointer too.
    using Open = std::function<Opened(bool forRemoteControl)>;

    static constexpr const char* kStoppedAtDevice =
        "the person at the device stopped sharing the screen; it is shared again when the "
        "broadcast is started again";

    explicit RemoteDesktopSessions(Open open) : open_(std::move(open)) {}

    // The session in use, or a new one: for remote control, one that has the input too.
    Opened current(bool forRemoteControl) {
        std::lock_guard lock(mutex_);
        if (answer_) {
            return *answer_;
        }
        if (session_) {
            switch (session_->ended()) {
                case SessionEnd::none:
                    if (!forRemoteControl || hasInput_) {
                        return session_;
                    }
                    break;
                case SessionEnd::stoppedAtDevice:
                    session_.reset();
                    answer_ = SessionDenied{kStoppedAtDevice, true};
                    return *answer_;
                case SessionEnd::compositorGone:
                    break;
            }
        }
        session_.reset();
        auto opened = open_(forRemoteControl);
        if (auto* denied = std::get_if<SessionDenied>(&opened)) {
            if (denied->theirAnswer) {
                answer_ = *denied;
            }
            return *denied;
        }
        session_ = std::get<std::shared_ptr<Session>>(std::move(opened));
        hasInput_ = forRemoteControl;
        return session_;
    }

  private:
    Open open_;
    std::mutex mutex_;
    std::shared_ptr<Session> session_;
    bool hasInput_ = false;
    // What the person at the device decided, which holds for the rest of the broadcast.
    std::optional<SessionDenied> answer_;
};

}  // namespace velmorand
