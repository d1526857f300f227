#pragma once

#include <memory>
#include <string_view>

#include "velmorand/gnome/GnomeInputInjector.h"
#include "velmorand/platform/Pasteboard.h"

namespace velmorand {

// The clipboard of a GNOME Wayland desktop, through its compositor's remote-desktop session: the
// text is offered until another program takes the clipboard.
class GnomeClipboard : public Pasteboard {
  public:
    explicit GnomeClipboard(GnomeInputInjector::Session session) : session_(std::move(session)) {}

    void setString(std::string_view text) override;

  private:
    GnomeInputInjector::Session session_;
};

}  // namespace velmorand
