#pragma once

#include <QStringList>

#include "AppServices.h"
#include "BroadcastBridge.h"
#include "EncodeSectionBridge.h"
#include "ExtensionLogBridge.h"
#include "PairingModelBridge.h"
#include "QrScannerBridge.h"

class QQmlContext;

namespace velmorand::app {

// What Main.qml binds to, under the names it uses: pairing, encode, broadcast, extensionLog,
// scanner.
struct ScreenBridges {
    ScreenBridges(AppServices& services, const QStringList& extensionArguments);

    void exposeTo(QQmlContext& context);

    PairingModelBridge pairing;
    EncodeSectionBridge encode;
    BroadcastBridge broadcast;
    ExtensionLogBridge extensionLog;
    QrScannerBridge scanner;
};

}  // namespace velmorand::app
