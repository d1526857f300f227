// velmorand-sandbox: runs the sandbox service until killed. Prints on stdout the base URL, the
// first access key, the viewer token (which scripts joining the relay as viewers must bring), then
// any further access keys, one a line.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <cstdlib>
#include <iostream>
#include <limits>

#include "velmorand/sandbox/Sandbox.h"

namespace {

bool parsePort(const QString& text, std::uint16_t* port) {
    bool ok = false;
    const uint value = text.toUInt(&ok);
    if (!ok || value > std::numeric_limits<std::uint16_t>::max()) {
        return false;
    }
    *port = static_cast<std::uint16_t>(value);
    return true;
}

[[noreturn]] void usageError(const QString& message) {
    std::cerr << "velmorand-sandbox: " << message.toStdString() << '\n';
    std::exit(2);
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("velmorand-sandbox"));
    QCoreApplication::setApplicationVersion(QStringLiteral(VELMORAND_VERSION));

    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("A local stand-in for the Velmorand service."));
    parser.addHelpOption();
    parser.addVersionOption();
    const QCommandLineOption portOption(
        QStringLiteral("port"), QStringLiteral("Service port; 0 (the default) picks a free one."),
        QStringLiteral("N"), QStringLiteral("0"));
    const QCommandLineOption hostOption(
        QStringLiteral("host"), QStringLiteral("Address to listen on (default: 127.0.0.1)."),
        QStringLiteral("address"), QStringLiteral("127.0.0.1"));
    const QCommandLineOption certOption(QStringLiteral("tls-cert"),
                                        QStringLiteral("PEM certificate; serves HTTPS."),
                                        QStringLiteral("file"));
    const QCommandLineOption keyFileOption(QStringLiteral("tls-key"),
                                           QStringLiteral("PEM private key of the certificate."),
                                           QStringLiteral("file"));
    const QCommandLineOption accessKeyOption(
        QStringLiteral("key"),
        QStringLiteral("An access key to accept; may be repeated (default: demo-key-1234 alone)."),
        QStringLiteral("K"));
    const QCommandLineOption modeOption(
        QStringLiteral("wda-mode"),
        QStringLiteral("How touch control answers: normal (the default), error, disabled or slow."),
        QStringLiteral("mode"), QStringLiteral("normal"));
    const QCommandLineOption wdaPortOption(
        QStringLiteral("wda-port"),
        QStringLiteral("Port of the stand-in automation server; 0 (the default) picks a free one."),
        QStringLiteral("N"), QStringLiteral("0"));
    const QCommandLineOption pingOption(
        QStringLiteral("relay-ping-ms"),
        QStringLiteral(
            "How often the relay pings the device, in ms (default: 5000); 0 sends no pings."),
        QStringLiteral("N"), QStringLiteral("5000"));
    const QCommandLineOption webrtcOption(
        QStringLiteral("webrtc"),
        QStringLiteral(
            "Enable peer-to-peer video: a device that can do WebRTC is told it may, and "
            "the viewer page offers a peer connection (relay frames stay the fallback)."));
    parser.addOptions({portOption, hostOption, certOption, keyFileOption, accessKeyOption,
                       modeOption, wdaPortOption, pingOption, webrtcOption});
    parser.process(app);

    velmorand::sandbox::SandboxOptions options;
    if (!parsePort(parser.value(portOption), &options.port)) {
        usageError(QStringLiteral("--port needs a number from 0 to 65535"));
    }
    if (!parsePort(parser.value(wdaPortOption), &options.wdaPort)) {
        usageError(QStringLiteral("--wda-port needs a number from 0 to 65535"));
    }
    options.host = parser.value(hostOption).toStdString();
    if (parser.isSet(certOption)) {
        options.tlsCertificateFile = parser.value(certOption).toStdString();
    }
    if (parser.isSet(keyFileOption)) {
        options.tlsKeyFile = parser.value(keyFileOption).toStdString();
    }
    for (const auto& key : parser.values(accessKeyOption)) {
        options.accessKeys.push_back(key.toStdString());
    }
    const auto mode = velmorand::sandbox::parseWdaMode(parser.value(modeOption).toStdString());
    if (!mode) {
        usageError(QStringLiteral("--wda-mode must be normal, error, disabled or slow"));
    }
    options.wdaMode = *mode;
    bool pingOk = false;
    const uint pingMs = parser.value(pingOption).toUInt(&pingOk);
    if (!pingOk) {
        usageError(QStringLiteral("--relay-ping-ms needs a whole number of milliseconds"));
    }
    options.relayPingInterval = std::chrono::milliseconds(pingMs);

    options.webrtc = parser.isSet(webrtcOption);
    velmorand::sandbox::Sandbox sandbox(std::move(options));
    std::string error;
    if (!sandbox.start(&error)) {
        std::cerr << "velmorand-sandbox: " << error << '\n';
        return 1;
    }
    // The URL, the first access key and the viewer token come first, in that order, whatever
    // else follows: scripts read them by line.
    const auto& keys = sandbox.accessKeys();
    std::cout << sandbox.baseUrl() << '\n' << keys.front() << '\n' << sandbox.viewerToken() << '\n';
    for (std::size_t i = 1; i < keys.size(); ++i) {
        std::cout << keys[i] << '\n';
    }
    std::cout.flush();
    std::cerr << "automation server: " << sandbox.wdaBaseUrl() << '\n'
              << "relay: " << sandbox.relayWsUrl() << "/device and /viewer" << std::endl;
    return QCoreApplication::exec();
}
