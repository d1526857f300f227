#include "SingleInstance.h"

#include <QCryptographicHash>
#include <QLocalSocket>

namespace velmorand::app {

QString SingleInstance::serverName(const std::filesystem::path& dataRoot) {
    std::error_code error;
    auto root = std::filesystem::weakly_canonical(std::filesystem::absolute(dataRoot), error);
    if (error) {
        root = std::filesystem::absolute(dataRoot);
    }
    const auto digest = QCryptographicHash::hash(QByteArray::fromStdString(root.string()),
                                                 QCryptographicHash::Sha256);
    return QStringLiteral("velmorand-connect-") + QString::fromLatin1(digest.toHex().left(16));
}

bool SingleInstance::forward(const QString& url, int timeoutMs) const {
    QLocalSocket socket;
    socket.connectToServer(serverName_);
    if (!socket.waitForConnected(timeoutMs)) {
        return false;
    }
    socket.write(url.toUtf8() + '\n');
    if (!socket.waitForBytesWritten(timeoutMs)) {
        return false;
    }
    socket.disconnectFromServer();
    if (socket.state() != QLocalSocket::UnconnectedState) {
        socket.waitForDisconnected(timeoutMs);
    }
    return true;
}

bool SingleInstance::listen() {
    // Nothing answered forward(): a socket file left here is stale.
    QLocalServer::removeServer(serverName_);
    server_.setSocketOptions(QLocalServer::UserAccessOption);
    if (!server_.listen(serverName_)) {
        return false;
    }
    connect(&server_, &QLocalServer::newConnection, this, [this] {
        while (auto* socket = server_.nextPendingConnection()) {
            auto buffer = std::make_shared<QByteArray>();
            auto deliver = [this, socket, buffer] {
                buffer->append(socket->readAll());
                const auto end = buffer->indexOf('\n');
                if (end < 0) {
                    return false;
                }
                emit messageReceived(QString::fromUtf8(buffer->left(end)));
                buffer->clear();
                socket->disconnectFromServer();
                return true;
            };
            connect(socket, &QLocalSocket::readyRead, this, deliver);
            connect(socket, &QLocalSocket::disconnected, socket, &QObject::deleteLater);
            deliver();
        }
    });
    return true;
}

}  // namespace velmorand::app
