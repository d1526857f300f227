#include "QtTestSupport.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QTcpSocket>
#include <QTimer>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <stdexcept>

#include "TempDir.h"

namespace velmorand::testing {

bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    // Wakes the wait below regularly, so that the deadline is looked at even in silence.
    QTimer ticker;
    ticker.start(10);
    QElapsedTimer clock;
    clock.start();
    while (!done()) {
        if (clock.elapsed() >= limit.count()) {
            return false;
        }
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    return true;
}

void pumpFor(std::chrono::milliseconds duration) {
    QElapsedTimer clock;
    clock.start();
    pumpUntil([&] { return clock.elapsed() >= duration.count(); }, duration * 2);
}

HttpOutcome sendAndWait(HttpClient& client, HttpRequest request) {
    std::optional<HttpOutcome> outcome;
    client.send(std::move(request),
                [&outcome](HttpOutcome result) { outcome = std::move(result); });
    if (!pumpUntil([&] { return outcome.has_value(); }, std::chrono::seconds(20))) {
        ADD_FAILURE() << "no completion";
        return HttpTransportError{"test: no completion"};
    }
    return *outcome;
}

namespace {

void run(const std::string& command) {
    const int status = std::system((command + " >/dev/null 2>&1").c_str());
    if (status != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

void writeFile(const std::filesystem::path& path, const std::string& text) {
    std::ofstream(path) << text;
}

// Issues a certificate for `names` (a subjectAltName value) signed by the CA in `dir`.
void issue(const std::filesystem::path& dir, const std::string& stem, const std::string& names) {
    const auto base = (dir / stem).string();
    const auto ca = (dir / "ca").string();
    writeFile(base + ".ext", "subjectAltName=" + names +
                                 "\nbasicConstraints=CA:FALSE\nkeyUsage=digitalSignature"
                                 "\nextendedKeyUsage=serverAuth\n");
    run("openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " + base +
        ".key -out " + base + ".csr -subj /CN=localhost");
    run("openssl x509 -req -in " + base + ".csr -CA " + ca + ".pem -CAkey " + ca +
        ".key -CAcreateserial -days 2 -out " + base + ".pem -extfile " + base + ".ext");
}

}  // namespace

const TestPki& testPki() {
    static const auto dir = std::make_unique<TempDir>();
    static const TestPki pki = [] {
        const auto& path = dir->path();
        const auto ca = (path / "ca").string();
        run("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " +
            ca + ".key -out " + ca +
            ".pem -days 2 -subj /CN=Velmorand-Test-CA"
            " -addext basicConstraints=critical,CA:TRUE"
            " -addext keyUsage=critical,keyCertSign,cRLSign");
        issue(path, "server", "DNS:localhost,IP:127.0.0.1");
        issue(path, "localhost-only", "DNS:localhost");
        return TestPki{path / "ca.pem", path / "server.pem", path / "server.key",
                       path / "localhost-only.pem", path / "localhost-only.key"};
    }();
    return pki;
}

ScopedEnv::ScopedEnv(const char* name, std::optional<std::string> value) : name_(name) {
    if (qEnvironmentVariableIsSet(name)) {
        previous_ = qgetenv(name);
    }
    if (value) {
        qputenv(name, QByteArray::fromStdString(*value));
    } else {
        qunsetenv(name);
    }
}

ScopedEnv::~ScopedEnv() {
    if (previous_) {
        qputenv(name_, *previous_);
    } else {
        qunsetenv(name_);
    }
}

CannedServer::CannedServer(std::optional<QByteArray> response) : response_(std::move(response)) {
    if (!server_.listen(QHostAddress::LocalHost)) {
        throw std::runtime_error("cannot listen");
    }
    QObject::connect(&server_, &QTcpServer::newConnection, &server_, [this] {
        while (QTcpSocket* socket = server_.nextPendingConnection()) {
            auto buffer = std::make_shared<QByteArray>();
            QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            QObject::connect(socket, &QTcpSocket::readyRead, socket, [this, socket, buffer] {
                *buffer += socket->readAll();
                const auto headerEnd = buffer->indexOf("\r\n\r\n");
                if (headerEnd < 0) {
                    return;
                }
                qsizetype length = 0;
                for (const auto& line : buffer->left(headerEnd).split('\n')) {
                    if (line.toLower().startsWith("content-length:")) {
                        length = line.mid(15).trimmed().toLongLong();
                    }
                }
                if (buffer->size() < headerEnd + 4 + length) {
                    return;
                }
                requests_.push_back(*buffer);
                buffer->clear();
                if (response_) {
                    socket->write(*response_);
                    socket->disconnectFromHost();
                }
            });
        }
    });
}

std::string CannedServer::url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(server_.serverPort()) + path;
}

std::uint16_t refusedPort() {
    QTcpServer server;
    server.listen(QHostAddress::LocalHost);
    const auto port = server.serverPort();
    server.close();
    return port;
}

}  // namespace velmorand::testing
