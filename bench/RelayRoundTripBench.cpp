// Round trip of one "latency_ping" → "latency_pong" over a loopback WebSocket, answered by the
// real `velmorand relay-client` process, beside a floor: a minimal client on the same stack (a
// QWebSocket in a process of its own, this program re-run with --echo) that answers the same
// probe. This program plays the relay: it listens, sends one probe at a time to whichever device
// connected and times each answer. Targets: median within 1.3× and p99 within 2× of the floor.
//
// Release builds only, under the shared build lock:
//   flock /tmp/velmorand-build.lock cmake --preset release   (once)
//   flock /tmp/velmorand-build.lock cmake --build build/release -j2
//       --target velmorand_bench_round_trip velmorand   (one command line)
//   build/release/bench/velmorand_bench_round_trip [--rounds N] [--warmup N]
// Exit status 0 when both targets hold, 1 when one is missed, 2 on a setup failure.
#include <signal.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QNetworkRequest>
#include <QProcess>
#include <QTimer>
#include <QWebSocket>
#include <QWebSocketServer>
#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr int kSetupFailure = 2;

// The floor: answers latency probes and nothing else, as plainly as the stack allows.
int runEchoClient(const QString& url) {
    QWebSocket socket;
    QObject::connect(
        &socket, &QWebSocket::textMessageReceived, &socket, [&socket](const QString& text) {
            const auto message = nlohmann::json::parse(text.toStdString(), nullptr, false);
            if (!message.is_object() || message.value("type", "") != "latency_ping") {
                return;
            }
            nlohmann::json pong = {{"type", "latency_pong"}, {"t", message.value("t", 0)}};
            if (message.contains("viewerId")) {
                pong["viewerId"] = message["viewerId"];
            }
            socket.sendTextMessage(QString::fromStdString(pong.dump()));
        });
    QObject::connect(&socket, &QWebSocket::disconnected, qApp, &QCoreApplication::quit);
    QNetworkRequest request{QUrl(url)};
    request.setRawHeader("x-device-token", "bench");
    socket.open(request);
    return QCoreApplication::exec();
}

struct Summary {
    double medianUs = 0;
    double p99Us = 0;
};

double percentile(std::vector<double> sorted, double fraction) {
    const auto index = static_cast<std::size_t>(fraction * static_cast<double>(sorted.size() - 1));
    return sorted[index];
}

// Starts `program`, waits for it to connect as the device, and times `rounds` probes after
// `warmup` untimed ones.
std::optional<Summary> measure(QWebSocketServer& server, const QString& program,
                               const QStringList& arguments, int warmup, int rounds) {
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(program, arguments);

    QEventLoop loop;
    QTimer deadline;
    deadline.setSingleShot(true);
    QObject::connect(&deadline, &QTimer::timeout, &loop, [&loop] { loop.exit(1); });
    deadline.start(30'000);

    QWebSocket* device = nullptr;
    QElapsedTimer clock;
    std::vector<double> samples;
    int sent = 0;
    const auto probe = [&] {
        ++sent;
        const std::string text =
            R"({"type":"latency_ping","t":)" + std::to_string(sent) + R"(,"viewerId":"bench"})";
        clock.start();
        device->sendTextMessage(QString::fromStdString(text));
    };
    const auto connection = QObject::connect(&server, &QWebSocketServer::newConnection, &loop, [&] {
        device = server.nextPendingConnection();
        QObject::connect(device, &QWebSocket::textMessageReceived, &loop, [&](const QString& text) {
            const double elapsedUs = static_cast<double>(clock.nsecsElapsed()) / 1000.0;
            const auto pong = nlohmann::json::parse(text.toStdString(), nullptr, false);
            if (!pong.is_object() || pong.value("type", "") != "latency_pong" ||
                pong.value("t", -1) != sent) {
                return;
            }
            if (sent > warmup) {
                samples.push_back(elapsedUs);
            }
            if (sent == warmup + rounds) {
                loop.exit(0);
                return;
            }
            probe();
        });
        probe();
    });
    const int outcome = loop.exec();
    QObject::disconnect(connection);

    ::kill(static_cast<pid_t>(process.processId()), SIGTERM);
    if (!process.waitForFinished(10'000)) {
        process.kill();
        process.waitForFinished();
    }
    delete device;
    if (outcome != 0 || samples.empty()) {
        std::fprintf(stderr, "%s: no answers within 30 s\n", program.toStdString().c_str());
        return std::nullopt;
    }
    std::sort(samples.begin(), samples.end());
    return Summary{percentile(samples, 0.5), percentile(samples, 0.99)};
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    const QCommandLineOption echoOption(QStringLiteral("echo"),
                                        QStringLiteral("Run as the floor client against URL."),
                                        QStringLiteral("URL"));
    const QCommandLineOption roundsOption(QStringLiteral("rounds"),
                                          QStringLiteral("Timed probes per client."),
                                          QStringLiteral("N"), QStringLiteral("5000"));
    const QCommandLineOption warmupOption(QStringLiteral("warmup"),
                                          QStringLiteral("Untimed probes first."),
                                          QStringLiteral("N"), QStringLiteral("500"));
    const QCommandLineOption programOption(QStringLiteral("velmorand"),
                                           QStringLiteral("The velmorand program to measure."),
                                           QStringLiteral("PATH"), QStringLiteral(VELMORAND_CLI));
    parser.addOptions({echoOption, roundsOption, warmupOption, programOption});
    parser.process(app);
    if (parser.isSet(echoOption)) {
        return runEchoClient(parser.value(echoOption));
    }
    const int rounds = std::max(1, parser.value(roundsOption).toInt());
    const int warmup = std::max(0, parser.value(warmupOption).toInt());

    QWebSocketServer server(QStringLiteral("bench relay"), QWebSocketServer::NonSecureMode);
    if (!server.listen(QHostAddress::LocalHost)) {
        std::fprintf(stderr, "cannot listen on loopback\n");
        return kSetupFailure;
    }
    const QString base = QStringLiteral("ws://127.0.0.1:%1/relay").arg(server.serverPort());

    const auto floor =
        measure(server, QCoreApplication::applicationFilePath(),
                {QStringLiteral("--echo"), base + QStringLiteral("/device")}, warmup, rounds);
    const auto client = measure(server, parser.value(programOption),
                                {QStringLiteral("relay-client"), QStringLiteral("--base"), base,
                                 QStringLiteral("--token"), QStringLiteral("bench")},
                                warmup, rounds);
    if (!floor || !client) {
        return kSetupFailure;
    }

    const double medianRatio = client->medianUs / floor->medianUs;
    const double p99Ratio = client->p99Us / floor->p99Us;
    std::printf("%-26s %12s %12s\n", "round trip (loopback)", "median µs", "p99 µs");
    std::printf("%-26s %12.1f %12.1f\n", "floor (QWebSocket echo)", floor->medianUs, floor->p99Us);
    std::printf("%-26s %12.1f %12.1f\n", "velmorand relay-client", client->medianUs, client->p99Us);
    std::printf("%-26s %11.2fx %11.2fx   (targets 1.30x, 2.00x; %d rounds)\n", "ratio", medianRatio,
                p99Ratio, rounds);
    return medianRatio <= 1.3 && p99Ratio <= 2.0 ? 0 : 1;
}
