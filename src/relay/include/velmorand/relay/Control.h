#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "velmorand/relay/Protocol.h"

namespace velmorand {

// A remote-control command from a viewer. Coordinates are in the viewer's space and durations in
// milliseconds; nothing is range-checked.
struct Control {
    using Point = IncomingMessage::Point;

    struct Tap {
        static constexpr std::string_view name = "tap";
        double x = 0;
        double y = 0;
        bool operator==(const Tap&) const = default;
    };
    struct DoubleTap {
        static constexpr std::string_view name = "doubleTap";
        double x = 0;
        double y = 0;
        bool operator==(const DoubleTap&) const = default;
    };
    struct LongPress {
        static constexpr std::string_view name = "longPress";
        double x = 0;
        double y = 0;
        std::int64_t ms = 0;
        bool operator==(const LongPress&) const = default;
    };
    struct Swipe {
        static constexpr std::string_view name = "swipe";
        Point from;
        Point to;
        std::int64_t ms = 0;
        bool operator==(const Swipe&) const = default;
    };
    struct TouchDown {
        static constexpr std::string_view name = "touchDown";
        double x = 0;
        double y = 0;
        bool operator==(const TouchDown&) const = default;
    };
    struct TouchMove {
        static constexpr std::string_view name = "touchMove";
        double x = 0;
        double y = 0;
        bool operator==(const TouchMove&) const = default;
    };
    struct TouchUp {
        static constexpr std::string_view name = "touchUp";
        double x = 0;
        double y = 0;
        bool operator==(const TouchUp&) const = default;
    };
    struct Text {
        static constexpr std::string_view name = "text";
        std::string text;
        bool operator==(const Text&) const = default;
    };
    struct Key {
        static constexpr std::string_view name = "key";
        std::string key;
        bool operator==(const Key&) const = default;
    };
    struct Button {
        static constexpr std::string_view name = "button";
        std::string button;
        bool operator==(const Button&) const = default;
    };
    struct OpenURL {
        static constexpr std::string_view name = "openURL";
        std::string url;
        bool operator==(const OpenURL&) const = default;
    };
    struct LaunchApp {
        static constexpr std::string_view name = "launchApp";
        std::string bundleId;
        bool operator==(const LaunchApp&) const = default;
    };
    struct KillApp {
        static constexpr std::string_view name = "killApp";
        std::string bundleId;
        bool operator==(const KillApp&) const = default;
    };
    struct SetClipboard {
        static constexpr std::string_view name = "setClipboard";
        std::string text;
        bool operator==(const SetClipboard&) const = default;
    };
    struct PushMedia {
        static constexpr std::string_view name = "pushMedia";
        std::string fileName;
        std::string mime;
        std::string dataB64;
        bool operator==(const PushMedia&) const = default;
    };

    using Command =
        std::variant<Tap, DoubleTap, LongPress, Swipe, TouchDown, TouchMove, TouchUp, Text, Key,
                     Button, OpenURL, LaunchApp, KillApp, SetClipboard, PushMedia>;

    Command command;

    // The command a message asks for, if its type names one. Missing coordinates and strings take
    // defaults rather than suppressing the command; only a swipe needs both end points.
    static std::optional<Control> from(const IncomingMessage& message);

    // The case's name: "tap", "doubleTap", …, "pushMedia".
    std::string_view name() const;

    bool operator==(const Control&) const = default;
};

}  // namespace velmorand
