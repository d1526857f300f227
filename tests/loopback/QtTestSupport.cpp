#include "QtTestSupport.h"

#include <gtest/gtest.h>

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QEventLoop>
#include <QFile>
#include <QSslCertificate>
#include <QSslConfiguration>
#include <QSslKey>
#include <QSslServer>
#include <QTcpSocket>
#include <QTimer>
#include <stdexcept>

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

namespace {

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

}  // namespace

std::unique_ptr<QTcpServer> tcpServer(const std::optional<ScriptedServer::Tls>& tls) {
    if (!tls) {
        return std::make_unique<QTcpServer>();
    }
    auto configuration = QSslConfiguration::defaultConfiguration();
    configuration.setLocalCertificate(QSslCertificate(readAll(tls->certificate)));
    configuration.setPrivateKey(QSslKey(readAll(tls->key), QSsl::Ec));
    auto server = std::make_unique<QSslServer>();
    server->setSslConfiguration(configuration);
    return server;
}

const TestPki& testPki() {
    static const std::filesystem::path dir = VELMORAND_TEST_PKI_DIR;
    static const TestPki pki{dir / "ca.pem", dir / "server.pem", dir / "server.key",
                             dir / "localhost-only.pem", dir / "localhost-only.key"};
    return pki;
}

QByteArray httpAnswer(int status, const std::string& body, const std::string& extraHeaders) {
    return QByteArray::fromStdString(
        "HTTP/1.1 " + std::to_string(status) + " Scripted\r\n" + extraHeaders +
        "Content-Length: " + std::to_string(body.size()) + "\r\n\r\n" + body);
}

ScriptedServer::ScriptedServer(std::optional<QByteArray> head, std::optional<Tls> tls,
                               QByteArray dribble)
    : server_(tcpServer(tls)),
      tls_(tls.has_value()),
      head_(std::move(head)),
      dribble_(std::move(dribble)) {
    listen();
}

ScriptedServer::ScriptedServer(Route route, bool keepAlive)
    : server_(std::make_unique<QTcpServer>()),
      tls_(false),
      route_(std::move(route)),
      keepAlive_(keepAlive) {
    listen();
}

void ScriptedServer::listen() {
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
    if (route_) {
        socket->write(route_(requests_.back()));
        if (!keepAlive_) {
            socket->disconnectFromHost();
        }
        return;
    }
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
    timer->start(dribble_.isEmpty() ? std::chrono::milliseconds(0) : std::chrono::seconds(1));
}

std::string ScriptedServer::baseUrl() const {
    return std::string(tls_ ? "https" : "http") +
           "://127.0.0.1:" + std::to_string(server_->serverPort());
}

ScriptedServer::Tls expiredCertificate() {
    const std::filesystem::path dir = VELMORAND_TEST_PKI_DIR;
    return {dir / "expired.pem", dir / "expired.key"};
}

}  // namespace velmorand::testing
