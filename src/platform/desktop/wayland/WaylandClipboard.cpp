#include "velmorand/wayland/WaylandClipboard.h"

#include "velmorand/wayland/RemoteDesktopSession.h"

namespace velmorand {

bool WaylandClipboard::available() {
    const auto session = session_();
    return session && session->hasClipboard();
}

void WaylandClipboard::setString(std::string_view text) {
    if (const auto session = session_()) {
        session->offerText(std::string(text));
    }
}

}  // namespace velmorand
