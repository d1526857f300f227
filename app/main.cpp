// velmorand-connect: the desktop application.
#include <unistd.h>
#include <QGuiApplication>
#include <QQmlApplicationEngine>
#include <QQuickWindow>
#include <QTimer>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>

#include "AppOptions.h"
#include "AppServices.h"
#include "ScreenBridges.h"
#include "SingleInstance.h"
#include "velmorand/desktop/DataRoot.h"
#include "velmorand/desktop/ServiceEndpoints.h"

using namespace velmorand;

namespace {

// Milliseconds since the kernel started this process, in steps of its clock tick (10 ms).
double millisecondsSinceProcessStart() {
    std::ifstream statFile("/proc/self/stat");
    const std::string stat{std::istreambuf_iterator<char>(statFile), {}};
    // The start time is field 22; the name in field 2 may hold spaces, so count after it.
    std::istringstream fields(stat.substr(stat.rfind(')') + 1));
    std::string field;
    for (int index = 3; index <= 22; ++index) {
        fields >> field;
    }
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    const double ticksPerSecond = static_cast<double>(sysconf(_SC_CLK_TCK));
    return static_cast<double>(now.tv_sec) * 1000.0 + static_cast<double>(now.tv_nsec) / 1e6 -
           std::stod(field) * 1000.0 / ticksPerSecond;
}

// Whether the arguments ask only for text (help, the version), which needs no display.
bool asksOnlyForText(int argc, char** argv) {
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == "-h" || argument == "--help" || argument == "--help-all" ||
            argument == "-v" || argument == "--version") {
            return true;
        }
    }
    return false;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication::setApplicationName(QStringLiteral("velmorand-connect"));
    QCoreApplication::setApplicationVersion(QStringLiteral(VELMORAND_VERSION));
    if (asksOnlyForText(argc, argv)) {
        // Answered and exited by the parser, without a display to connect to.
        const QCoreApplication textOnly(argc, argv);
        app::AppOptions::parse(QCoreApplication::arguments());
        return 0;
    }
    QGuiApplication application(argc, argv);
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Velmorand"));
    QGuiApplication::setDesktopFileName(QStringLiteral("velmorand-connect"));

    // Hidden, for docs/performance.md: print the milliseconds from process start to the first
    // frame shown, then quit.
    QStringList arguments = QGuiApplication::arguments();
    const bool reportFirstFrame = arguments.removeAll(QStringLiteral("--report-first-frame")) > 0;
    const auto options = app::AppOptions::parse(arguments);
    std::optional<ServiceEndpoints> endpoints;
    try {
        endpoints = ServiceEndpoints::resolve(
            options.serviceUrl ? std::optional(options.serviceUrl->toStdString()) : std::nullopt);
    } catch (const InvalidServiceUrl& error) {
        std::fprintf(stderr, "velmorand-connect: %s\n", error.what());
        return 2;
    }

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

    app::AppServices services(options.locations, std::move(*endpoints));
    app::ScreenBridges bridges(services, options.locationArguments());

    QQmlApplicationEngine engine;
    bridges.exposeTo(*engine.rootContext());
    engine.load(QUrl(QStringLiteral("qrc:/velmorand/qml/Main.qml")));
    if (engine.rootObjects().isEmpty()) {
        return 1;
    }
    auto* window = qobject_cast<QQuickWindow*>(engine.rootObjects().front());
    if (reportFirstFrame && window != nullptr) {
        QObject::connect(
            window, &QQuickWindow::frameSwapped, &application,
            [] {
                std::printf("first frame after %.0f ms\n", millisecondsSinceProcessStart());
                QGuiApplication::quit();
            },
            Qt::SingleShotConnection);
    }

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
