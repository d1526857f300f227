#pragma once

#include "velmorand/extension/Broadcast.h"

namespace velmorand::extension {

// What this desktop gives a broadcast, on X11: its screen (XCB capture, libyuv scaling,
// TurboJPEG and libx264) and its input (XTest), clipboard, windows and applications (GIO).
Broadcast::StreamOpener desktopStreamOpener(FrameSink& sink);
Broadcast::RemoteControlOpener desktopRemoteControlOpener();

}  // namespace velmorand::extension
