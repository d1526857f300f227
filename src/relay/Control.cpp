#include "velmorand/relay/Control.h"

#include "velmorand/platform/Text.h"

namespace velmorand {
namespace {

std::string orEmpty(const std::optional<std::string>& text) {
    return text.value_or(std::string());
}

// Either spelling of the key may carry the identifier; the first non-blank one wins.
std::string bundleIdentifier(const IncomingMessage& message) {
    std::string chosen = message.bundleId ? trimmed(*message.bundleId) : std::string();
    if (chosen.empty() && message.bundleID) {
        chosen = trimmed(*message.bundleID);
    }
    return chosen;
}

}  // namespace

std::optional<Control> Control::from(const IncomingMessage& m) {
    const std::string_view type = m.type;
    const double x = m.x.value_or(0);
    const double y = m.y.value_or(0);
    if (type == "tap") {
        return Control{Tap{x, y}};
    }
    if (type == "double_tap") {
        return Control{DoubleTap{x, y}};
    }
    if (type == "long_press") {
        return Control{LongPress{x, y, m.ms.value_or(500)}};
    }
    if (type == "swipe") {
        if (!m.from || !m.to) {
            return std::nullopt;
        }
        return Control{Swipe{*m.from, *m.to, m.ms.value_or(250)}};
    }
    if (type == "touch_down") {
        return Control{TouchDown{x, y}};
    }
    if (type == "touch_move") {
        return Control{TouchMove{x, y}};
    }
    if (type == "touch_up") {
        return Control{TouchUp{x, y}};
    }
    if (type == "text") {
        return Control{Text{orEmpty(m.value)}};
    }
    if (type == "key") {
        return Control{Key{orEmpty(m.key)}};
    }
    if (type == "button") {
        return Control{Button{orEmpty(m.name)}};
    }
    if (type == "open_url") {
        return Control{OpenURL{orEmpty(m.url)}};
    }
    if (type == "launch_app") {
        return Control{LaunchApp{bundleIdentifier(m)}};
    }
    if (type == "kill_app") {
        return Control{KillApp{bundleIdentifier(m)}};
    }
    if (type == "set_clipboard" || type == "paste") {
        const bool hasValue = m.value && !m.value->empty();
        return Control{SetClipboard{hasValue ? *m.value : orEmpty(m.text)}};
    }
    if (type == "push_media") {
        return Control{PushMedia{m.fileName.value_or("file"),
                                 m.mime.value_or("application/octet-stream"), orEmpty(m.dataB64)}};
    }
    return std::nullopt;
}

std::string_view Control::name() const {
    return std::visit([](const auto& value) { return value.name; }, command);
}

}  // namespace velmorand
