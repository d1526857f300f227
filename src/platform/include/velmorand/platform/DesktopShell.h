#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace velmorand {

// The desktop's own services for applications and documents. Each call reports failure as a
// one-line reason, absent on success.
class DesktopShell {
  public:
    virtual ~DesktopShell() = default;

    // Opens `url` with the desktop's default handler for its scheme.
    virtual std::optional<std::string> openUrl(const std::string& url) = 0;
    // Starts the installed application whose desktop entry has this id ("org.example.App.desktop").
    virtual std::optional<std::string> launch(const std::string& desktopId) = 0;
    // The window class its entry declares (StartupWMClass), if any; absent when no installed
    // entry has this id.
    virtual std::optional<std::vector<std::string>> windowClasses(const std::string& desktopId) = 0;
    // Where the user's downloads go.
    virtual std::filesystem::path downloadsDirectory() = 0;
};

}  // namespace velmorand
