#pragma once

// GNOME's screen cast of the session the bench runs in, read in process. On its own, without Qt:
// Qt's keywords would clash with the D-Bus session's names.

#include <cstdint>
#include <memory>
#include <string>
#include <variant>

#include "velmorand/platform/ScreenCapture.h"

namespace velmorand::bench {

// A screen cast for another program to read: its PipeWire node, there while `session` is held.
struct GnomeScreenCastNode {
    std::shared_ptr<void> session;
    std::uint32_t node = 0;
};

// The cast, or why there is none.
std::variant<GnomeScreenCastNode, std::string> openGnomeScreenCastNode();

// The capture, which keeps its session open; or why there is none.
std::variant<std::unique_ptr<ScreenCapture>, std::string> openGnomeScreenCast();

}  // namespace velmorand::bench
