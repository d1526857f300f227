#pragma once

#include <QHostAddress>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QTcpServer>
#include <QTcpSocket>
#include <vector>

namespace velmorand::testing {

// A loopback TCP relay to another port that can hold what clients send until released: the
// service then looks slow for exactly as long as a test needs.
class HoldingProxy : public QObject {
    Q_OBJECT

  public:
    explicit HoldingProxy(quint16 targetPort) : targetPort_(targetPort) {
        server_.listen(QHostAddress::LocalHost, 0);
        connect(&server_, &QTcpServer::newConnection, this, &HoldingProxy::accept);
    }

    QString baseUrl() const {
        return QStringLiteral("http://127.0.0.1:%1").arg(server_.serverPort());
    }

    void setHolding(bool holding) {
        holding_ = holding;
        if (!holding_) {
            for (const auto& pair : pairs_) {
                if (pair.client && pair.upstream) {
                    pair.upstream->write(pair.client->readAll());
                }
            }
        }
    }

  private:
    struct Pair {
        QPointer<QTcpSocket> client;
        QPointer<QTcpSocket> upstream;
    };

    void accept() {
        while (auto* client = server_.nextPendingConnection()) {
            auto* upstream = new QTcpSocket(client);
            upstream->connectToHost(QHostAddress::LocalHost, targetPort_);
            pairs_.push_back(Pair{client, upstream});
            auto forward = [this, client, upstream] {
                if (!holding_ && upstream->state() == QAbstractSocket::ConnectedState) {
                    upstream->write(client->readAll());
                }
            };
            connect(client, &QTcpSocket::readyRead, this, forward);
            connect(upstream, &QTcpSocket::connected, this, forward);
            connect(upstream, &QTcpSocket::readyRead, client,
                    [client, upstream] { client->write(upstream->readAll()); });
            connect(upstream, &QTcpSocket::disconnected, client,
                    [client] { client->disconnectFromHost(); });
            connect(client, &QTcpSocket::disconnected, client, &QObject::deleteLater);
        }
    }

    quint16 targetPort_;
    QTcpServer server_;
    bool holding_ = false;
    std::vector<Pair> pairs_;
};

}  // namespace velmorand::testing
