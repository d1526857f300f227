#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "velmorand/extension/Broadcast.h"
#include "velmorand/extension/DesktopChoice.h"
#include "velmorand/platform/PeerConnection.h"
#include "velmorand/platform/SettingsStore.h"

namespace velmorand::extension {

// What this desktop gives a broadcast: its screen (captured by the chosen backend, scaled by
// libyuv, encoded by TurboJPEG and libx264) and its input, clipboard and windows (the backend's
// own), applications and files (GIO). The one place that knows the backends.
struct DesktopServices {
    Broadcast::StreamOpener openStream;
    Broadcast::RemoteControlOpener openRemoteControl;
    // For a broadcast without remote control: has the screen shared now, before the relay is
    // reached, so that the person at the device is asked as they start it, not when a viewer
    // comes (the remote control's opening does the same for the other broadcasts).
    std::function<void()> shareScreen;
};

// Peer-to-peer video on this desktop, through GStreamer, whose plug-ins the first offer loads
// under the crash marker in the `shared` settings store (which outlives the factory); when they
// cannot be, every offer is refused with the reason. VELMORAND_ICE_LOOPBACK=1 adds 127.0.0.1 to
// the addresses connections gather on, for tests on a host with only loopback.
PeerConnectionFactory desktopPeers(SettingsStore& shared);

// Where the portal's grant of a screen cast is kept between broadcasts, so that the person at the
// device is asked once.
struct PortalGrantStore {
    std::function<std::optional<std::string>()> load;
    std::function<void(const std::string&)> save;
};

// The backends `facts` call for, tried in order when the stream or the remote control first
// opens; a backend's session (GNOME's, the portal's) is shared by both, and opened again once the
// compositor has closed it. `log` hears what the person at the device is asked.
DesktopServices desktopServices(const DesktopFacts& facts, FrameSink& sink, Log& log,
                                PortalGrantStore grants);

// The facts of this process's session: `forced` (the --desktop option) else VELMORAND_DESKTOP,
// and the session's environment.
DesktopFacts desktopFacts(const std::optional<std::string>& forced);

}  // namespace velmorand::extension
