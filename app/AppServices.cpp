#include "AppServices.h"

#include <QClipboard>
#include <QGuiApplication>
#include <QString>

#include "velmorand/ui/BroadcastExtension.h"

namespace velmorand::app {

void ClipboardPasteboard::setString(std::string_view text) {
    QGuiApplication::clipboard()->setText(
        QString::fromUtf8(text.data(), static_cast<qsizetype>(text.size())));
}

AppServices::AppServices(const DesktopLocations& locations, ServiceEndpoints endpoints)
    : environment(locations),
      appGroup(environment.bundle),
      config(environment.settings, environment.keychain, appGroup),
      http(mainQueue),
      webRtc(environment.classLookup, config, log),
      model(PairingModel::create(PairingServices{
          .config = config,
          .http = http,
          .mainQueue = mainQueue,
          .webRtc = webRtc,
          .pasteboard = pasteboard,
          .bundle = environment.bundle,
          .broadcastExtensionLookup =
              [this] { return BroadcastExtension::bundleIdentifier(environment.bundle); },
          .appURL = std::move(endpoints.appURL),
          .wdaStatusURL = std::move(endpoints.wdaStatusURL),
      })) {}

}  // namespace velmorand::app
