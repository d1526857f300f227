// velmorand-indicator: the running broadcast in the desktop's status area and notifications.
// Started by the broadcast on a graphical desktop; ends once the broadcast's lock is free.
#include <unistd.h>

#include <QApplication>
#include <QCommandLineParser>
#include <cstdlib>
#include <string>

#include "StatusIndicator.h"

int main(int argc, char** argv) {
    // The desktop's session bus is where its login put it; libdbus would otherwise launch a bus
    // of its own on the X display, for nothing to listen on.
    if (std::getenv("DBUS_SESSION_BUS_ADDRESS") == nullptr) {
        const char* runtime = std::getenv("XDG_RUNTIME_DIR");
        const std::string directory =
            runtime != nullptr ? runtime : "/run/user/" + std::to_string(::getuid());
        ::setenv("DBUS_SESSION_BUS_ADDRESS", ("unix:path=" + directory + "/bus").c_str(), 1);
    }

    QApplication application(argc, argv);
    QApplication::setApplicationName(QStringLiteral("velmorand-indicator"));
    QApplication::setApplicationVersion(QStringLiteral(VELMORAND_VERSION));
    QApplication::setQuitOnLastWindowClosed(false);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "Shows the running broadcast in the desktop's status area and stops it on request. "
        "Started by velmorand-broadcast."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption container(
        QStringLiteral("container"), QStringLiteral("The group container whose broadcast to show."),
        QStringLiteral("DIR"));
    parser.addOption(container);
    parser.process(application);
    if (!parser.isSet(container)) {
        parser.showHelp(2);
    }
    velmorand::indicator::StatusIndicator indicator(
        velmorand::BroadcastControl(parser.value(container).toStdString()));
    return QApplication::exec();
}
