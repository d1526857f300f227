#pragma once

#include <QString>
#include <QStringList>
#include <optional>

#include "velmorand/desktop/DesktopEnvironment.h"

namespace velmorand::app {

// What the command line chose.
struct AppOptions {
    DesktopLocations locations;
    std::optional<QString> serviceUrl;
    // A deep link to open; empty when none was given.
    QString url;

    // The locations again, as options for a program that shares them (the upload extension).
    QStringList locationArguments() const;

    // Parses the application's arguments; on an error or --help it prints and exits.
    static AppOptions parse(const QStringList& arguments);
};

}  // namespace velmorand::app
