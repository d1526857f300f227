#pragma once

#include <memory>
#include <string_view>

#include "velmorand/platform/Pasteboard.h"
#include "velmorand/wayland/WaylandInputInjector.h"

namespace velmorand {

// The clipboard of a Wayland desktop, through a remote-desktop session of its compositor: the
// text is offered until another program takes the clipboard.
class WaylandClipboard : public Pasteboard {
  public:
    explicit WaylandClipboard(WaylandInputInjector::Session session)
        : session_(std::move(session)) {}

    bool available() override;
    void setString(std::string_view text) override;

  private:
    WaylandInputInjector::Session session_;
};

}  // namespace velmorand
