// Memory of the `velmorand relay-client` process over a long run: this program plays the relay,
// sends it 1,000,000 frames of a realistic mix (ping, latency_ping, tap, qos, encode_settings)
// and reads the client's VmRSS from /proc/<pid>/status every 100,000 frames. Frames go out in
// batches, each closed by a marker probe whose answer says the client has handled the batch, so
// every sample is taken with nothing queued.
//
// Release builds only, under the shared build lock:
//   flock /tmp/velmorand-build.lock cmake --build build/release -j2
//       --target velmorand_bench_memory velmorand   (one command line)
//   build/release/bench/velmorand_bench_memory [--frames N] [--every N]
// Prints one line per sample; exit status 0 when the last sample is within 10% (or 1 MiB) of the
// one after the first 100,000 frames, 1 when it grew more, 2 on a setup failure.
#include <signal.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QProcess>
#include <QTemporaryFile>
#include <QTimer>
#include <QWebSocket>
#include <QWebSocketServer>
#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

namespace {

constexpr int kSetupFailure = 2;
constexpr int kBatch = 1000;
// Marker probes carry t values that the mix never uses.
constexpr long long kMarkerBase = 1'000'000'000'000LL;

const char* const kMix[] = {
    R"({"type":"ping"})",
    R"({"type":"latency_ping","t":1718000000123,"viewerId":"viewer-1"})",
    R"({"type":"tap","x":187.5,"y":402})",
    R"({"type":"qos","rttMs":48,"lossPct":0.4,"tier":"high","decodeQueue":1,"jitterMs":6})",
    R"({"type":"encode_settings","fps":30,"quality":0.6,"scale":0.5,"codec":"h264"})",
};

std::optional<long> residentKiB(qint64 pid) {
    QFile status(QStringLiteral("/proc/%1/status").arg(pid));
    if (!status.open(QIODevice::ReadOnly)) {
        return std::nullopt;
    }
    for (const QByteArray& line : status.readAll().split('\n')) {
        if (line.startsWith("VmRSS:")) {
            return line.mid(6).trimmed().split(' ').front().toLong();
        }
    }
    return std::nullopt;
}

}  // namespace

int main(int argc, char** argv) {
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    const QCommandLineOption framesOption(QStringLiteral("frames"),
                                          QStringLiteral("Frames to send in all."),
                                          QStringLiteral("N"), QStringLiteral("1000000"));
    const QCommandLineOption everyOption(QStringLiteral("every"),
                                         QStringLiteral("Frames between two samples."),
                                         QStringLiteral("N"), QStringLiteral("100000"));
    const QCommandLineOption programOption(QStringLiteral("velmorand"),
                                           QStringLiteral("The velmorand program to measure."),
                                           QStringLiteral("PATH"), QStringLiteral(VELMORAND_CLI));
    parser.addOptions({framesOption, everyOption, programOption});
    parser.process(app);
    const long long frames = std::max(1LL, parser.value(framesOption).toLongLong());
    // Samples fall on batch boundaries.
    const long long every =
        std::max<long long>(1, parser.value(everyOption).toLongLong() / kBatch) * kBatch;

    QWebSocketServer server(QStringLiteral("bench relay"), QWebSocketServer::NonSecureMode);
    if (!server.listen(QHostAddress::LocalHost)) {
        std::fprintf(stderr, "cannot listen on loopback\n");
        return kSetupFailure;
    }
    // The token goes through a file: never on a command line.
    QTemporaryFile tokenFile;
    if (!tokenFile.open() || tokenFile.write("bench-token\n") < 0 || !tokenFile.flush()) {
        std::fprintf(stderr, "cannot write the token file\n");
        return kSetupFailure;
    }
    QProcess process;
    process.setStandardOutputFile(QProcess::nullDevice());
    process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
    process.start(parser.value(programOption),
                  {QStringLiteral("relay-client"), QStringLiteral("--base"),
                   QStringLiteral("ws://127.0.0.1:%1").arg(server.serverPort()),
                   QStringLiteral("--token-file"), tokenFile.fileName()});
    if (!process.waitForStarted()) {
        std::fprintf(stderr, "cannot start %s\n", qPrintable(parser.value(programOption)));
        return kSetupFailure;
    }
    const qint64 pid = process.processId();

    QEventLoop loop;
    QWebSocket* device = nullptr;
    long long sent = 0;
    std::vector<std::pair<long long, long>> samples;
    QTimer stall;
    stall.setSingleShot(true);
    QObject::connect(&stall, &QTimer::timeout, &loop, [&loop] { loop.exit(kSetupFailure); });

    const auto sample = [&] {
        const auto rss = residentKiB(pid);
        if (!rss) {
            loop.exit(kSetupFailure);
            return false;
        }
        samples.emplace_back(sent, *rss);
        std::printf("%9lld frames  VmRSS %7ld KiB\n", sent, *rss);
        std::fflush(stdout);
        return true;
    };
    const auto sendBatch = [&] {
        const long long count = std::min<long long>(kBatch, frames - sent);
        for (long long i = 0; i < count; ++i) {
            device->sendTextMessage(QString::fromLatin1(kMix[(sent + i) % std::size(kMix)]));
        }
        sent += count;
        device->sendTextMessage(
            QStringLiteral(R"({"type":"latency_ping","t":%1})").arg(kMarkerBase + sent));
        stall.start(30'000);
    };
    QObject::connect(&server, &QWebSocketServer::newConnection, &loop, [&] {
        device = server.nextPendingConnection();
        QObject::connect(device, &QWebSocket::textMessageReceived, &loop, [&](const QString& text) {
            if (!text.contains(QStringLiteral("\"t\":%1").arg(kMarkerBase + sent))) {
                return;
            }
            if ((sent % every == 0 || sent == frames) && !sample()) {
                return;
            }
            if (sent == frames) {
                loop.exit(0);
                return;
            }
            sendBatch();
        });
        if (sample()) {
            sendBatch();
        }
    });
    stall.start(30'000);
    const int outcome = loop.exec();

    ::kill(static_cast<pid_t>(pid), SIGTERM);
    if (!process.waitForFinished(10'000)) {
        process.kill();
        process.waitForFinished();
    }
    delete device;
    if (outcome != 0 || samples.size() < 2) {
        std::fprintf(stderr, "the client stopped answering\n");
        return kSetupFailure;
    }
    // The first sample is taken before any frame; growth is judged from the first 100,000 on.
    const long first = samples[1].second;
    const long last = samples.back().second;
    std::printf("growth after the first sample of traffic: %+ld KiB\n", last - first);
    return last - first <= std::max(1024L, first / 10) ? 0 : 1;
}
