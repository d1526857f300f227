#include "ScreenBridges.h"

#include <QQmlContext>

namespace velmorand::app {

ScreenBridges::ScreenBridges(AppServices& services, const QStringList& extensionArguments)
    : pairing(services.model, [&config = services.config] { return config.load().relayWsUrl; }),
      encode(services.config),
      broadcast(services.model, services.environment.bundle, services.environment.groupContainers,
                extensionArguments),
      extensionLog(services.appGroup, services.environment.groupContainers) {}

void ScreenBridges::exposeTo(QQmlContext& context) {
    context.setContextProperty(QStringLiteral("pairing"), &pairing);
    context.setContextProperty(QStringLiteral("encode"), &encode);
    context.setContextProperty(QStringLiteral("broadcast"), &broadcast);
    context.setContextProperty(QStringLiteral("extensionLog"), &extensionLog);
    context.setContextProperty(QStringLiteral("scanner"), &scanner);
}

}  // namespace velmorand::app
