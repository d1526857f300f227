#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "velmorand/platform/DesktopShell.h"

namespace velmorand {

// Desktop entries, default URL handlers and the user's directories as GIO finds them, from the
// XDG directories this process started with (GLib reads them once).
class GioDesktopShell : public DesktopShell {
  public:
    std::optional<std::string> openUrl(const std::string& url) override;
    std::optional<std::string> launch(const std::string& desktopId) override;
    std::optional<std::vector<std::string>> windowClasses(const std::string& desktopId) override;
    std::filesystem::path downloadsDirectory() override;
};

}  // namespace velmorand
