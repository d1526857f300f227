// velmorand-connect: the desktop application.
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QTimer>
#include <cstdlib>

#include "AppOptions.h"
#include "AppServices.h"
#include "ScreenBridges.h"
#include "SingleInstance.h"
#include "velmorand/desktop/DataRoot.h"

using namespace velmorand;

int main(int argc, char** argv) {
    QGuiApplication application(argc, argv);
    QGuiApplication::setApplicationName(QStringLiteral("velmorand-connect"));
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Velmorand"));
    QGuiApplication::setApplicationVersion(QStringLiteral(VELMORAND_VERSION));
    QGuiApplication::setDesktopFileName(QStringLiteral("velmorand-connect"));

    const auto options = app::AppOptions::parse(QGuiApplication::arguments());

    app::SingleInstance instance(
        app::SingleInstance::serverName(DataRoot::resolve(options.locations.dataDir).root()));
    if (instance.forward(options.url)) {
        return 0;
    }
    if (!instance.listen()) {
        qWarning(
            "velmorand-connect: cannot take the single-instance socket; links opened "
            "later start another window");
    }

    app::ServiceEndpoints endpoints{
        options.resolvedServiceUrl(QStringLiteral(VELMORAND_SERVICE_URL)).toStdString()};
    if (const auto wda = qEnvironmentVariable("VELMORAND_WDA_URL"); !wda.isEmpty()) {
        endpoints.wdaStatusURL = wda.toStdString();
    }
    app::AppServices services(options.locations, std::move(endpoints));
    app::ScreenBridges bridges(services, options.locationArguments());

    QQmlApplicationEngine engine;
    bridges.exposeTo(*engine.rootContext());
    engine.load(QUrl(QStringLiteral("qrc:/velmorand/qml/Main.qml")));
    if (engine.rootObjects().isEmpty()) {
        return 1;
    }
    auto* window = qobject_cast<QQuickWindow*>(engine.rootObjects().front());

    QObject::connect(&instance, &app::SingleInstance::messageReceived, &bridges.pairing,
                     [&bridges, window](const QString& url) {
                         if (window) {
                             window->show();
                             window->raise();
                             window->requestActivate();
                         }
                         if (!url.isEmpty()) {
                             bridges.pairing.handleDeepLink(url);
                         }
                     });
    if (!options.url.isEmpty()) {
        // After the window's first refresh, as for a link opened while running.
        QTimer::singleShot(0, &bridges.pairing,
                           [&bridges, url = options.url] { bridges.pairing.handleDeepLink(url); });
    }
    const int status = QGuiApplication::exec();
    if (services.model->busy()) {
        // A handshake thread still uses the services; ending here spares it their teardown.
        // Nothing is lost: every store write has already been made durable.
        std::_Exit(status);
    }
    return status;
}
