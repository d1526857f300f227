#include "velmorand/gnome/GnomeClipboard.h"

#include "velmorand/gnome/GnomeRemoteDesktop.h"

namespace velmorand {

void GnomeClipboard::setString(std::string_view text) {
    if (const auto session = session_()) {
        session->offerText(std::string(text));
    }
}

}  // namespace velmorand
