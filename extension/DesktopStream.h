#pragma once

#include "velmorand/extension/Broadcast.h"

namespace velmorand::extension {

// Streams this desktop's X11 screen: XCB capture, libyuv scaling, TurboJPEG and libx264.
Broadcast::StreamOpener desktopStreamOpener(FrameSink& sink);

}  // namespace velmorand::extension
