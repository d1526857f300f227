#include "AppOptions.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <cstdio>
#include <cstdlib>

namespace velmorand::app {

QStringList AppOptions::locationArguments() const {
    QStringList arguments;
    if (locations.dataDir) {
        arguments << QStringLiteral("--data-dir")
                  << QString::fromStdString(locations.dataDir->string());
    }
    if (locations.bundleDir) {
        arguments << QStringLiteral("--bundle-dir")
                  << QString::fromStdString(locations.bundleDir->string());
    }
    return arguments;
}

AppOptions AppOptions::parse(const QStringList& arguments) {
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Velmorand Connect: pair this device with the Velmorand dashboard."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption dataDir(
        QStringLiteral("data-dir"),
        QStringLiteral("Where the stores live (default: $VELMORAND_DATA_DIR, else "
                       "$XDG_DATA_HOME/velmorand)."),
        QStringLiteral("DIR"));
    const QCommandLineOption bundleDir(
        QStringLiteral("bundle-dir"),
        QStringLiteral("The application bundle (default: $VELMORAND_BUNDLE_DIR, else the one "
                       "installed beside this program)."),
        QStringLiteral("DIR"));
    const QCommandLineOption serviceUrl(
        QStringLiteral("service-url"),
        QStringLiteral("The Velmorand service to pair with (default: $VELMORAND_SERVICE_URL, "
                       "else the built-in one)."),
        QStringLiteral("URL"));
    parser.addOptions({dataDir, bundleDir, serviceUrl});
    parser.addPositionalArgument(QStringLiteral("url"),
                                 QStringLiteral("A velmorand:// or pair link to open."),
                                 QStringLiteral("[url]"));
    if (!parser.parse(arguments)) {
        std::fprintf(stderr, "velmorand-connect: %s\n", qPrintable(parser.errorText()));
        std::exit(2);
    }
    if (parser.isSet(QStringLiteral("help"))) {
        parser.showHelp(0);
    }
    // Only process() prints the help with Qt's own options; the arguments have parsed, so it
    // prints it and exits.
    if (parser.isSet(QStringLiteral("help-all"))) {
        parser.process(arguments);
    }
    if (parser.isSet(QStringLiteral("version"))) {
        parser.showVersion();
    }
    const auto positional = parser.positionalArguments();
    if (positional.size() > 1) {
        std::fprintf(stderr, "velmorand-connect: at most one URL may be given\n");
        std::exit(2);
    }

    AppOptions options;
    if (parser.isSet(dataDir)) {
        options.locations.dataDir = parser.value(dataDir).toStdString();
    }
    if (parser.isSet(bundleDir)) {
        options.locations.bundleDir = parser.value(bundleDir).toStdString();
    }
    if (parser.isSet(serviceUrl)) {
        options.serviceUrl = parser.value(serviceUrl);
    }
    if (!positional.isEmpty()) {
        options.url = positional.front();
    }
    return options;
}

}  // namespace velmorand::app
