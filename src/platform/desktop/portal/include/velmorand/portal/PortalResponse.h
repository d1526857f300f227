#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <variant>

#include "velmorand/platform/ScreenCapture.h"
#include "velmorand/wayland/RemoteDesktopSession.h"

typedef struct _GVariant GVariant;

namespace velmorand {

// What the portal granted when a session started: the screen cast's stream, the input devices,
// and the token that lets a later session start without asking (when the portal keeps grants).
struct PortalGrant {
    std::uint32_t node = 0;
    ScreenSize size;
    // Keyboard 1, pointer 2, touchscreen 4.
    std::uint32_t devices = 0;
    std::optional<std::string> restoreToken;

    bool operator==(const PortalGrant&) const = default;
};

// Reads the Response of a portal session's Start: its code (0 granted, 1 declined by the person
// asked, else failed) and its results (a{sv}: "streams" a(ua{sv}) with "size" (ii), "devices" u,
// "restore_token" s). The grant, or in a line for the log why there is none.
std::variant<PortalGrant, SessionDenied> readStartResponse(std::uint32_t code, GVariant* results);

}  // namespace velmorand
