#pragma once

// The stage every stream measurement runs on: a private X server, the bench scene on it, a
// pairing stored in a data directory of the bench's own, and the upload extension started as the
// application starts it.

#include <QTemporaryDir>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "Harness.h"
#include "Xvfb.h"

namespace velmorand::bench {

struct Programs {
    QString broadcast;
    QString scene;
    QString waylandScene;
    QString bundle;
};

// X11: a private Xvfb of the bench's own. Wayland: the session the bench runs in, through the
// compositor's own screen cast (GNOME).
enum class Desktop { x11, wayland };

struct EncodePreferences {
    std::string codec = "jpeg";
    std::int64_t fps = 30;
    double quality = 0.4;
    double scale = 0.5;
};

class Rig {
  public:
    static constexpr int kScreenWidth = 1920;
    static constexpr int kScreenHeight = 1080;
    static constexpr const char* kToken = "bench-device-token";

    Rig(Programs programs, Desktop desktop, bool keepFiles);
    ~Rig();
    Rig(const Rig&) = delete;
    Rig& operator=(const Rig&) = delete;

    // The X display; X11 only.
    const std::string& display() const;
    QString directory() const { return directory_.path(); }

    // Starts (or restarts) the scene and waits until its first picture is on the screen.
    void startScene(bool still, double fps);
    // Stores what a pairing against `relayWsUrl` leaves, with these preferences.
    void pair(const std::string& relayWsUrl, const EncodePreferences& encode);
    Child& startExtension();
    void stopExtension();
    Child* extension() { return extension_.get(); }
    std::string extensionLog() const;
    // The lines of extension.log that a reader of the results wants: what the stream did.
    std::string streamLines() const;

  private:
    // What the scene and the extension are started with to use this rig's desktop.
    QStringList desktopEnvironment() const;

    Programs programs_;
    Desktop desktop_;
    QTemporaryDir directory_;
    std::unique_ptr<Xvfb> xvfb_;
    std::unique_ptr<Child> scene_;
    std::unique_ptr<Child> extension_;
    bool keepFiles_;
};

}  // namespace velmorand::bench
