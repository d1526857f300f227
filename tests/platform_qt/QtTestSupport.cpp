#include "QtTestSupport.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslServer>
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
    const int status = std::system(("(" + command + ") >/dev/null 2>&1").c_str());
    if (status != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

QByteArray readAll(const std::filesystem::path& path) {
    QFile file(QString::fromStdString(path.string()));
    if (!file.open(QIODevice::ReadOnly)) {
        throw std::runtime_error("cannot read " + path.string());
    }
    return file.readAll();
}

// Headers and as much body as Content-Length announced are in.
bool complete(const QByteArray& buffer) {
    const auto headerEnd = buffer.indexOf("\r\n\r\n");
    qsizetype length = 0;
    for (const auto& line : buffer.left(headerEnd).split('\n')) {
        if (line.toLower().startsWith("content-length:")) {
            length = line.mid(15).trimmed().toLongLong();
        }
    }
    return headerEnd >= 0 && buffer.size() >= headerEnd + 4 + length;
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

// What a loopback server presents: one of the test certificates with its key.
QSslConfiguration serverTls(const std::filesystem::path& certificate,
                            const std::filesystem::path& key) {
    auto configuration = QSslConfiguration::defaultConfiguration();
    configuration.setLocalCertificate(QSslCertificate(readAll(certificate)));
    configuration.setPrivateKey(QSslKey(readAll(key), QSsl::Ec));
    return configuration;
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

QByteArray httpAnswer(int status, const std::string& body, const std::string& extraHeaders) {
    return QByteArray::fromStdString(
        "HTTP/1.1 " + std::to_string(status) + " Scripted\r\n" + extraHeaders +
        "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

ScriptedServer::ScriptedServer(std::optional<QByteArray> head, std::optional<Tls> tls,
                               QByteArray dribble, std::chrono::milliseconds every)
    : tls_(tls.has_value()), head_(std::move(head)), dribble_(std::move(dribble)), every_(every) {
    if (tls) {
        auto server = std::make_unique<QSslServer>();
        server->setSslConfiguration(serverTls(tls->certificate, tls->key));
        server_ = std::move(server);
    } else {
        server_ = std::make_unique<QTcpServer>();
    }
    if (!server_->listen(QHostAddress::LocalHost)) {
        throw std::runtime_error("cannot listen");
    }
    // QSslServer hands connections out once encrypted; the plain server at once.
    QObject::connect(server_.get(), &QTcpServer::pendingConnectionAvailable, server_.get(), [this] {
        while (QTcpSocket* socket = server_->nextPendingConnection()) {
            auto buffer = std::make_shared<QByteArray>();
            QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
            const auto read = [this, socket, buffer] {
                *buffer += socket->readAll();
                if (complete(*buffer)) {
                    requests_.push_back(std::exchange(*buffer, {}));
                    answer(socket);
                }
            };
            QObject::connect(socket, &QTcpSocket::readyRead, socket, read);
            read();
        }
    });
}

void ScriptedServer::answer(QTcpSocket* socket) {
    if (!head_) {
        return;
    }
    socket->write(*head_);
    auto timer = new QTimer(socket);
    QObject::connect(timer, &QTimer::timeout, socket,
                     [this, socket, sent = qsizetype(0)]() mutable {
                         if (sent < dribble_.size()) {
                             socket->write(dribble_.mid(sent++, 1));
                         } else {
                             socket->disconnectFromHost();
                         }
                     });
    timer->start(dribble_.isEmpty() ? std::chrono::milliseconds(0) : every_);
}

std::string ScriptedServer::baseUrl() const {
    return std::string(tls_ ? "https" : "http") +
           "://127.0.0.1:" + std::to_string(server_->serverPort());
}

ScriptedServer::Tls expiredCertificate() {
    static const ScriptedServer::Tls expired = [] {
        const auto& pki = testPki();
        const auto dir = pki.caCertificate.parent_path() / "expired";
        const auto base = (dir / "cert").string();
        std::filesystem::create_directories(dir);
        std::ofstream(dir / "index");
        std::ofstream(dir / "serial") << "01\n";
        std::ofstream(base + ".ext") << "subjectAltName=DNS:localhost,IP:127.0.0.1\n"
                                        "basicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n";
        std::ofstream(base + ".cnf")
            << "[ca]\ndefault_ca=t\n[t]\ndatabase=" << (dir / "index").string()
            << "\nnew_certs_dir=" << dir.string() << "\nserial=" << (dir / "serial").string()
            << "\ndefault_md=sha256\npolicy=p\nunique_subject=no\n"
               "[p]\ncommonName=supplied\n";
        // `openssl ca` is the one command that takes explicit dates; these are long past.
        run("openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " +
            base + ".key -out " + base + ".csr -subj /CN=localhost && openssl ca -batch -notext " +
            "-config " + base + ".cnf -cert " + pki.caCertificate.string() + " -keyfile " +
            (pki.caCertificate.parent_path() / "ca.key").string() + " -in " + base + ".csr -out " +
            base + ".pem -extfile " + base + ".ext -startdate 20200101000000Z -enddate " +
            "20200102000000Z");
        return ScriptedServer::Tls{base + ".pem", base + ".key"};
    }();
    return expired;
}

}  // namespace velmorand::testing
