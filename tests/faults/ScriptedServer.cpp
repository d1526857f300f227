#include "ScriptedServer.h"

#include <QFile>
#include <QSslCertificate>
#include <QSslKey>
#include <QSslServer>
#include <QSslSocket>
#include <QTcpSocket>
#include <QTimer>
#include <cstdlib>
#include <fstream>
#include <stdexcept>

#include "QtTestSupport.h"

namespace velmorand::testing {
namespace {

QByteArray readAll(const std::filesystem::path& path) {
    QFile file(QString::fromStdString(path.string()));
    if (!file.open(QIODevice::ReadOnly)) {
        throw std::runtime_error("cannot read " + path.string());
    }
    return file.readAll();
}

void run(const std::string& command) {
    if (std::system((command + " >/dev/null 2>&1").c_str()) != 0) {
        throw std::runtime_error("failed: " + command);
    }
}

// The whole request is in: headers and as much body as Content-Length announced.
bool complete(const QByteArray& buffer) {
    const auto headerEnd = buffer.indexOf("\r\n\r\n");
    if (headerEnd < 0) {
        return false;
    }
    qsizetype length = 0;
    for (const auto& line : buffer.left(headerEnd).split('\n')) {
        if (line.toLower().startsWith("content-length:")) {
            length = line.mid(15).trimmed().toLongLong();
        }
    }
    return buffer.size() >= headerEnd + 4 + length;
}

}  // namespace

Answer Answer::http(int status, const std::string& body,
                    const std::vector<std::string>& extraHeaders) {
    std::string head = "HTTP/1.1 " + std::to_string(status) + " Scripted\r\n";
    for (const auto& header : extraHeaders) {
        head += header + "\r\n";
    }
    head += "Content-Length: " + std::to_string(body.size()) + "\r\nConnection: close\r\n\r\n";
    return Answer::bytes(QByteArray::fromStdString(head + body));
}

ScriptedServer::ScriptedServer(Answer answer, std::optional<Tls> tls)
    : tls_(tls.has_value()), answer_(std::move(answer)) {
    if (tls) {
        auto server = std::make_unique<QSslServer>();
        QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
        configuration.setLocalCertificate(QSslCertificate(readAll(tls->certificate)));
        configuration.setPrivateKey(QSslKey(readAll(tls->key), QSsl::Ec));
        configuration.setPeerVerifyMode(QSslSocket::VerifyNone);
        server->setSslConfiguration(configuration);
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
            accept(socket);
        }
    });
}

ScriptedServer::~ScriptedServer() = default;

void ScriptedServer::accept(QTcpSocket* socket) {
    auto buffer = std::make_shared<QByteArray>();
    QObject::connect(socket, &QTcpSocket::disconnected, socket, &QObject::deleteLater);
    const auto read = [this, socket, buffer] {
        *buffer += socket->readAll();
        if (!complete(*buffer)) {
            return;
        }
        requests_.push_back(*buffer);
        buffer->clear();
        answer(socket);
    };
    QObject::connect(socket, &QTcpSocket::readyRead, socket, read);
    if (socket->bytesAvailable() > 0) {
        read();
    }
}

void ScriptedServer::answer(QTcpSocket* socket) {
    if (answer_.silent) {
        return;
    }
    socket->write(answer_.head);
    if (answer_.dribble.isEmpty()) {
        if (answer_.close) {
            socket->disconnectFromHost();
        }
        return;
    }
    auto timer = new QTimer(socket);
    auto next = std::make_shared<qsizetype>(0);
    QObject::connect(timer, &QTimer::timeout, socket, [this, socket, timer, next] {
        socket->write(answer_.dribble.mid((*next)++, 1));
        if (*next >= answer_.dribble.size()) {
            timer->stop();
            if (answer_.close) {
                socket->disconnectFromHost();
            }
        }
    });
    timer->start(answer_.dribbleEvery);
}

std::string ScriptedServer::baseUrl(const std::string& host) const {
    return std::string(tls_ ? "https://" : "http://") + host + ":" +
           std::to_string(server_->serverPort());
}

ScriptedServer::Tls expiredCertificate() {
    static const ScriptedServer::Tls expired = [] {
        const auto& pki = testPki();
        const auto dir = pki.caCertificate.parent_path();
        const auto base = (dir / "expired").string();
        std::ofstream(base + ".ext") << "subjectAltName=DNS:localhost,IP:127.0.0.1\n"
                                        "basicConstraints=CA:FALSE\nextendedKeyUsage=serverAuth\n";
        std::filesystem::create_directories(dir / "expired-db");
        std::ofstream((dir / "expired-db" / "index").string());
        std::ofstream((dir / "expired-db" / "serial").string()) << "01\n";
        std::ofstream(base + ".cnf") << "[ca]\ndefault_ca = test\n[test]\n"
                                     << "database = " << (dir / "expired-db" / "index").string()
                                     << "\nnew_certs_dir = " << (dir / "expired-db").string()
                                     << "\nserial = " << (dir / "expired-db" / "serial").string()
                                     << "\ndefault_md = sha256\npolicy = any\nunique_subject = no\n"
                                        "[any]\ncommonName = supplied\n";
        run("openssl req -new -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes -keyout " +
            base + ".key -out " + base + ".csr -subj /CN=localhost");
        // `openssl ca` is the one command that takes explicit dates; these are long past.
        run("openssl ca -batch -notext -config " + base + ".cnf -cert " +
            pki.caCertificate.string() + " -keyfile " + (dir / "ca.key").string() + " -in " + base +
            ".csr -out " + base + ".pem -extfile " + base +
            ".ext -startdate 20200101000000Z -enddate 20200102000000Z");
        return ScriptedServer::Tls{base + ".pem", base + ".key"};
    }();
    return expired;
}

}  // namespace velmorand::testing
