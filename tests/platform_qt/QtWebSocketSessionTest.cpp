#include "velmorand/qt/QtWebSocketSession.h"

#include <gtest/gtest.h>

#include <QFile>
#include <QSslConfiguration>
#include <QSslKey>
#include <QThread>
#include <QWebSocket>
#include <QWebSocketServer>
#include <mutex>

#include "QtTestSupport.h"

namespace velmorand {
namespace {

using testing::pumpFor;
using testing::pumpUntil;
using testing::testPki;
using namespace std::chrono_literals;

// Filled from the session's thread, read from the test's.
template <typename T>
class Box {
  public:
    void set(T value) {
        std::lock_guard lock(mutex_);
        value_ = std::move(value);
    }
    std::optional<T> get() const {
        std::lock_guard lock(mutex_);
        return value_;
    }
    bool has() const { return get().has_value(); }

  private:
    mutable std::mutex mutex_;
    std::optional<T> value_;
};

struct DelegateEvent {
    std::string kind;
    WebSocketTask* task;
    int closeCode = 0;
    std::optional<std::string> reason;
};

class RecordingDelegate : public WebSocketSessionDelegate {
  public:
    void opened(const std::shared_ptr<WebSocketTask>& task) override {
        std::lock_guard lock(mutex_);
        events_.push_back({"opened", task.get(), 0, std::nullopt});
    }
    void closed(const std::shared_ptr<WebSocketTask>& task, int closeCode,
                const std::optional<std::string>& reason) override {
        std::lock_guard lock(mutex_);
        events_.push_back({"closed", task.get(), closeCode, reason});
    }
    std::vector<DelegateEvent> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<DelegateEvent> events_;
};

// A WebSocket server on the test's thread that keeps what it is told.
class Peer {
  public:
    explicit Peer(std::optional<QSslConfiguration> tls = std::nullopt)
        : server_(QStringLiteral("test"),
                  tls ? QWebSocketServer::SecureMode : QWebSocketServer::NonSecureMode) {
        if (tls) {
            server_.setSslConfiguration(*tls);
        }
        server_.listen(QHostAddress::LocalHost);
        QObject::connect(&server_, &QWebSocketServer::newConnection, &server_, [this] {
            while (QWebSocket* socket = server_.nextPendingConnection()) {
                socket->setParent(&server_);
                sockets_.push_back(socket);
                QObject::connect(
                    socket, &QWebSocket::textMessageReceived, socket,
                    [this](const QString& text) { received_.push_back(text.toUtf8()); });
                QObject::connect(socket, &QWebSocket::binaryMessageReceived, socket,
                                 [this](const QByteArray& bytes) { received_.push_back(bytes); });
                QObject::connect(socket, &QWebSocket::disconnected, socket,
                                 [this, socket] { closeCodes_.push_back(socket->closeCode()); });
            }
        });
    }

    std::string url(const char* scheme = "ws", const char* host = "127.0.0.1") const {
        return std::string(scheme) + "://" + host + ":" + std::to_string(server_.serverPort()) +
               "/device";
    }
    QWebSocket* socket() const { return sockets_.empty() ? nullptr : sockets_.back(); }
    const std::vector<QByteArray>& received() const { return received_; }
    const std::vector<int>& closeCodes() const { return closeCodes_; }

  private:
    QWebSocketServer server_;
    std::vector<QWebSocket*> sockets_;
    std::vector<QByteArray> received_;
    std::vector<int> closeCodes_;
};

QSslConfiguration serverTls(const std::filesystem::path& certificate,
                            const std::filesystem::path& key) {
    QSslConfiguration tls = QSslConfiguration::defaultConfiguration();
    tls.setLocalCertificate(
        QSslCertificate::fromPath(QString::fromStdString(certificate.string())).value(0));
    QFile keyFile(QString::fromStdString(key.string()));
    keyFile.open(QIODevice::ReadOnly);
    tls.setPrivateKey(QSslKey(keyFile.readAll(), QSsl::Ec));
    tls.setPeerVerifyMode(QSslSocket::VerifyNone);
    return tls;
}

// Every case runs with the sockets on the session's own thread and on the test's (main) thread.
class QtWebSocketSessionTest : public ::testing::TestWithParam<QtWebSocketSession::SocketThread> {
  protected:
    std::shared_ptr<WebSocketTask> start(const std::string& url,
                                         std::chrono::milliseconds timeout = 10s) {
        WebSocketRequest request;
        request.url = url;
        request.headers = {{"x-device-token", "tok-42"}};
        request.timeout = timeout;
        auto task = session_->makeTask(request);
        task->resume();
        return task;
    }

    std::shared_ptr<Box<WebSocketTask::ReceiveResult>> receive(WebSocketTask& task) {
        auto box = std::make_shared<Box<WebSocketTask::ReceiveResult>>();
        task.receive([box](WebSocketTask::ReceiveResult result) { box->set(std::move(result)); });
        return box;
    }

    // The error a receive ended with; fails the test on a message.
    std::string receiveError(WebSocketTask& task) {
        auto box = receive(task);
        if (!pumpUntil([&] { return box->has(); })) {
            ADD_FAILURE() << "no receive completion";
            return {};
        }
        const auto result = *box->get();
        if (const auto* error = std::get_if<WebSocketError>(&result)) {
            return error->description;
        }
        ADD_FAILURE() << "received " << std::get<WebSocketMessage>(result).payload;
        return {};
    }

    bool openedOnce(WebSocketTask& task) {
        return pumpUntil([&] {
            const auto events = delegate_->events();
            return events.size() == 1 && events[0].kind == "opened" && events[0].task == &task;
        });
    }

    std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
    std::unique_ptr<WebSocketSession> session_ = QtWebSocketSession::factory(GetParam())(delegate_);
};

TEST_P(QtWebSocketSessionTest, CarriesTheTokenHeaderAndTextAndBinaryFramesBothWays) {
    Peer peer;
    auto task = start(peer.url());
    // Sent before the link is up: held until it is.
    auto early = std::make_shared<Box<std::optional<WebSocketError>>>();
    task->send({WebSocketMessage::Kind::text, R"({"type":"hello"})"},
               [early](std::optional<WebSocketError> error) { early->set(error); });

    ASSERT_TRUE(openedOnce(*task));
    ASSERT_TRUE(pumpUntil([&] { return peer.socket() != nullptr; }));
    EXPECT_EQ(peer.socket()->request().rawHeader("x-device-token"), "tok-42");

    const std::string binary("\x00\xff{}", 4);
    auto late = std::make_shared<Box<std::optional<WebSocketError>>>();
    task->send({WebSocketMessage::Kind::binary, binary},
               [late](std::optional<WebSocketError> error) { late->set(error); });
    ASSERT_TRUE(pumpUntil([&] { return peer.received().size() == 2; }));
    EXPECT_EQ(peer.received()[0], R"({"type":"hello"})");
    EXPECT_EQ(peer.received()[1].toStdString(), binary);
    ASSERT_TRUE(early->has());
    EXPECT_FALSE(early->get()->has_value());
    ASSERT_TRUE(late->has());
    EXPECT_FALSE(late->get()->has_value());

    const QByteArray big(1 << 20, 'x');
    peer.socket()->sendTextMessage(QStringLiteral("ping"));
    peer.socket()->sendBinaryMessage(QByteArray("\x01\x02", 2));
    peer.socket()->sendBinaryMessage(big);
    for (const auto& [kind, payload] : std::vector<std::pair<WebSocketMessage::Kind, std::string>>{
             {WebSocketMessage::Kind::text, "ping"},
             {WebSocketMessage::Kind::binary, std::string("\x01\x02", 2)},
             {WebSocketMessage::Kind::binary, big.toStdString()}}) {
        auto box = receive(*task);
        ASSERT_TRUE(pumpUntil([&] { return box->has(); }));
        const auto result = *box->get();
        const auto* message = std::get_if<WebSocketMessage>(&result);
        ASSERT_NE(message, nullptr);
        EXPECT_EQ(message->kind, kind);
        EXPECT_EQ(message->payload, payload);
    }
}

TEST_P(QtWebSocketSessionTest, CompletionsComeLaterOnTheSocketsThread) {
    Peer peer;
    auto task = start(peer.url());
    ASSERT_TRUE(openedOnce(*task));
    ASSERT_TRUE(pumpUntil([&] { return peer.socket() != nullptr; }));
    peer.socket()->sendTextMessage(QStringLiteral("waiting"));
    pumpFor(50ms);

    auto received = std::make_shared<Box<QThread*>>();
    auto sent = std::make_shared<Box<QThread*>>();
    task->receive(
        [received](WebSocketTask::ReceiveResult) { received->set(QThread::currentThread()); });
    task->send({WebSocketMessage::Kind::text, "x"},
               [sent](std::optional<WebSocketError>) { sent->set(QThread::currentThread()); });
    const bool onCaller = GetParam() == QtWebSocketSession::SocketThread::caller;
    if (onCaller) {
        // A message already waiting and a send on an open link still answer after the call.
        EXPECT_FALSE(received->has());
        EXPECT_FALSE(sent->has());
    }
    ASSERT_TRUE(pumpUntil([&] { return received->has() && sent->has(); }));
    EXPECT_EQ(*received->get() == QThread::currentThread(), onCaller);
    EXPECT_EQ(*sent->get() == QThread::currentThread(), onCaller);
}

TEST_P(QtWebSocketSessionTest, ReportsThePeersCloseCodeAndReasonAndFailsReceives) {
    Peer peer;
    auto task = start(peer.url());
    ASSERT_TRUE(openedOnce(*task));
    auto pending = receive(*task);
    ASSERT_TRUE(pumpUntil([&] { return peer.socket() != nullptr; }));
    peer.socket()->close(static_cast<QWebSocketProtocol::CloseCode>(4401),
                         QStringLiteral("bad token"));

    ASSERT_TRUE(pumpUntil([&] { return delegate_->events().size() == 2 && pending->has(); }));
    const auto closed = delegate_->events()[1];
    EXPECT_EQ(closed.kind, "closed");
    EXPECT_EQ(closed.task, task.get());
    EXPECT_EQ(closed.closeCode, 4401);
    EXPECT_EQ(closed.reason, "bad token");
    EXPECT_TRUE(std::holds_alternative<WebSocketError>(*pending->get()));
    // And so does every later receive.
    EXPECT_FALSE(receiveError(*task).empty());
}

TEST_P(QtWebSocketSessionTest, ALinkDroppedWithoutACloseHandshakeIsAnErrorNotAClose) {
    Peer peer;
    auto task = start(peer.url());
    ASSERT_TRUE(openedOnce(*task));
    ASSERT_TRUE(pumpUntil([&] { return peer.socket() != nullptr; }));
    peer.socket()->abort();

    EXPECT_FALSE(receiveError(*task).empty());
    pumpFor(50ms);
    EXPECT_EQ(delegate_->events().size(), 1u);
}

TEST_P(QtWebSocketSessionTest, AConnectionThatNeverOpensEndsInAReceiveErrorAlone) {
    testing::CannedServer silent(std::nullopt);
    testing::CannedServer refusing("HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n");
    const auto silentUrl = "ws" + silent.url().substr(4);
    const auto refusingUrl = "ws" + refusing.url().substr(4);
    const auto closedPort = "ws://127.0.0.1:" + std::to_string(testing::refusedPort()) + "/device";

    auto stalled = start(silentUrl, 300ms);
    EXPECT_NE(receiveError(*stalled).find("timed out"), std::string::npos);
    EXPECT_FALSE(receiveError(*start(refusingUrl)).empty());
    EXPECT_FALSE(receiveError(*start(closedPort)).empty());
    EXPECT_FALSE(receiveError(*start("http://127.0.0.1:1/device")).empty());
    EXPECT_TRUE(delegate_->events().empty());
}

TEST_P(QtWebSocketSessionTest, SecureLinksCheckTheCertificateAndTheServerName) {
    const auto& pki = testPki();
    Peer good(serverTls(pki.serverCertificate, pki.serverKey));
    Peer misnamed(serverTls(pki.localhostOnlyCertificate, pki.localhostOnlyKey));
    {
        testing::ScopedEnv ca("VELMORAND_CA_FILE", pki.caCertificate.string());
        auto task = start(good.url("wss"));
        EXPECT_TRUE(openedOnce(*task));
        EXPECT_FALSE(receiveError(*start(misnamed.url("wss"))).empty());
        // The same certificate is fine under the name it carries.
        auto byName = start(misnamed.url("wss", "localhost"));
        EXPECT_TRUE(pumpUntil([&] { return delegate_->events().size() == 2; }));
    }
    testing::ScopedEnv noCa("VELMORAND_CA_FILE", std::nullopt);
    EXPECT_FALSE(receiveError(*start(good.url("wss"))).empty());
    EXPECT_EQ(delegate_->events().size(), 2u);
}

TEST_P(QtWebSocketSessionTest, CancellingEndsTheTaskQuietly) {
    Peer peer;
    auto task = start(peer.url());
    ASSERT_TRUE(openedOnce(*task));
    auto pending = receive(*task);
    task->cancel();

    ASSERT_TRUE(pumpUntil([&] { return pending->has(); }));
    EXPECT_EQ(std::get<WebSocketError>(*pending->get()).description, "Cancelled");
    auto sent = std::make_shared<Box<std::optional<WebSocketError>>>();
    task->send({WebSocketMessage::Kind::text, "late"},
               [sent](std::optional<WebSocketError> error) { sent->set(error); });
    ASSERT_TRUE(pumpUntil([&] { return sent->has(); }));
    EXPECT_TRUE(sent->get()->has_value());
    ASSERT_TRUE(pumpUntil([&] { return peer.closeCodes().size() == 1; }));
    EXPECT_EQ(peer.closeCodes()[0], QWebSocketProtocol::CloseCodeGoingAway);
    // No close event for a task the owner cancelled.
    EXPECT_EQ(delegate_->events().size(), 1u);
}

TEST_P(QtWebSocketSessionTest, TheSessionKeepsARunningTaskAliveForItsEvents) {
    Peer peer;
    auto box = std::make_shared<Box<WebSocketTask::ReceiveResult>>();
    {
        auto task = start(peer.url());
        task->receive([box](WebSocketTask::ReceiveResult result) { box->set(std::move(result)); });
    }
    ASSERT_TRUE(pumpUntil([&] { return peer.socket() != nullptr; }));
    peer.socket()->sendTextMessage(QStringLiteral("still here"));
    ASSERT_TRUE(pumpUntil([&] { return box->has(); }));
    EXPECT_EQ(std::get<WebSocketMessage>(*box->get()).payload, "still here");
}

TEST_P(QtWebSocketSessionTest, DestroyingTheSessionClosesItsSocketsWithoutFurtherEvents) {
    Peer peer;
    auto task = start(peer.url());
    ASSERT_TRUE(openedOnce(*task));
    auto pending = receive(*task);
    session_.reset();

    ASSERT_TRUE(pumpUntil([&] { return peer.closeCodes().size() == 1; }));
    pumpFor(50ms);
    EXPECT_FALSE(pending->has());
    EXPECT_EQ(delegate_->events().size(), 1u);
    // A task outliving its session answers nothing, and does not crash.
    task->receive([](WebSocketTask::ReceiveResult) { ADD_FAILURE() << "completion after end"; });
    task->resume();
}

INSTANTIATE_TEST_SUITE_P(SocketThreads, QtWebSocketSessionTest,
                         ::testing::Values(QtWebSocketSession::SocketThread::own,
                                           QtWebSocketSession::SocketThread::caller),
                         [](const auto& info) {
                             return info.param == QtWebSocketSession::SocketThread::own
                                        ? "OwnThread"
                                        : "CallerThread";
                         });

}  // namespace
}  // namespace velmorand
