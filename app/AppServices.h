#pragma once

#include <memory>
#include <string>

#include "velmorand/config/AppGroup.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/desktop/DesktopEnvironment.h"
#include "velmorand/desktop/ServiceEndpoints.h"
#include "velmorand/desktop/StderrLog.h"
#include "velmorand/pairing/PairingModel.h"
#include "velmorand/pairing/WebRtcCapability.h"
#include "velmorand/platform/Pasteboard.h"
#include "velmorand/qt/QtHttpClient.h"
#include "velmorand/qt/QtMainQueue.h"

namespace velmorand::app {

// The system clipboard of the running QGuiApplication.
class ClipboardPasteboard : public Pasteboard {
  public:
    void setString(std::string_view text) override;
};

// Everything the screen runs on, built once per process; the one PairingModel lives here.
// Construct it on the GUI thread, after the QGuiApplication.
struct AppServices {
    AppServices(const DesktopLocations& locations, ServiceEndpoints endpoints);
    AppServices(const AppServices&) = delete;
    AppServices& operator=(const AppServices&) = delete;

    DesktopEnvironment environment;
    AppGroup appGroup;
    SharedConfig config;
    QtMainQueue mainQueue;
    QtHttpClient http;
    StderrLog log;
    WebRtcCapability webRtc;
    ClipboardPasteboard pasteboard;
    std::shared_ptr<PairingModel> model;
};

}  // namespace velmorand::app
