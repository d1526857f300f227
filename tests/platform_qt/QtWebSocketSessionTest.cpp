#include "velmorand/qt/QtWebSocketSession.h"

#include <gtest/gtest.h>

#include <QThread>
#include <QWebSocket>
#include <QWebSocketServer>
#include <mutex>

#include "QtTestSupport.h"
#include "ScopedEnv.h"

namespace velmorand {
namespace {

using testing::pumpFor;
using testing::pumpUntil;
using namespace std::chrono_literals;
using Kind = WebSocketMessage::Kind;
using SendResult = std::optional<WebSocketError>;

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

  private:
    mutable std::mutex mutex_;
    std::optional<T> value_;
};

// Delegate events as "opened" or "closed <code> <reason>", with the task they name.
class RecordingDelegate : public WebSocketSessionDelegate {
  public:
    void opened(const std::shared_ptr<WebSocketTask>& task) override { add(task, "opened"); }
    void closed(const std::shared_ptr<WebSocketTask>& task, int code,
                const std::optional<std::string>& reason) override {
        add(task, "closed " + std::to_string(code) + " " + reason.value_or("-"));
    }
    std::vector<std::pair<WebSocketTask*, std::string>> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }

  private:
    void add(const std::shared_ptr<WebSocketTask>& task, std::string event) {
        std::lock_guard lock(mutex_);
        events_.emplace_back(task.get(), std::move(event));
    }
    mutable std::mutex mutex_;
    std::vector<std::pair<WebSocketTask*, std::string>> events_;
};

// A WebSocket server on the test's thread that keeps what it is told.
class Peer {
  public:
    explicit Peer(const std::filesystem::path& certificate = {},
                  const std::filesystem::path& key = {})
        : server_("test",
                  key.empty() ? QWebSocketServer::NonSecureMode : QWebSocketServer::SecureMode) {
        if (!key.empty()) {
            server_.setSslConfiguration(testing::serverTls(certificate, key));
        }
        server_.listen(QHostAddress::LocalHost);
        QObject::connect(&server_, &QWebSocketServer::newConnection, &server_, [this] {
            while (QWebSocket* socket = server_.nextPendingConnection()) {
                socket->setParent(&server_);
                socket_ = socket;
                QObject::connect(
                    socket, &QWebSocket::textMessageReceived, socket,
                    [this](const QString& text) { received.push_back(text.toUtf8()); });
                QObject::connect(socket, &QWebSocket::binaryMessageReceived, socket,
                                 [this](const QByteArray& bytes) { received.push_back(bytes); });
                QObject::connect(socket, &QWebSocket::disconnected, socket,
                                 [this, socket] { closeCodes.push_back(socket->closeCode()); });
            }
        });
    }

    std::string url(const char* scheme = "ws", const char* host = "127.0.0.1") const {
        return std::string(scheme) + "://" + host + ":" + std::to_string(server_.serverPort()) +
               "/device";
    }
    // The connected socket, once there is one.
    QWebSocket* socket() {
        EXPECT_TRUE(pumpUntil([&] { return socket_ != nullptr; }));
        return socket_;
    }

    std::vector<QByteArray> received;
    std::vector<int> closeCodes;

  private:
    QWebSocketServer server_;
    QWebSocket* socket_ = nullptr;
};

// Every case runs with the sockets on the session's own thread and on the test's (main) thread.
class QtWebSocketSessionTest : public ::testing::TestWithParam<QtWebSocketSession::SocketThread> {
  protected:
    std::shared_ptr<WebSocketTask> start(const std::string& url,
                                         std::chrono::milliseconds timeout = 10s) {
        auto task = session_->makeTask(
            {.url = url, .headers = {{"x-device-token", "tok-42"}}, .timeout = timeout});
        task->resume();
        return task;
    }

    std::shared_ptr<Box<WebSocketTask::ReceiveResult>> receive(WebSocketTask& task) {
        auto box = std::make_shared<Box<WebSocketTask::ReceiveResult>>();
        task.receive([box](WebSocketTask::ReceiveResult result) { box->set(std::move(result)); });
        return box;
    }

    std::shared_ptr<Box<SendResult>> send(WebSocketTask& task, Kind kind, std::string payload) {
        auto box = std::make_shared<Box<SendResult>>();
        task.send({kind, std::move(payload)}, [box](SendResult error) { box->set(error); });
        return box;
    }

    // The next message as "text <payload>" / "binary <payload>", or "error <description>".
    std::string next(WebSocketTask& task) {
        auto box = receive(task);
        if (!pumpUntil([&] { return box->get().has_value(); })) {
            return "no completion";
        }
        const auto result = *box->get();
        if (const auto* error = std::get_if<WebSocketError>(&result)) {
            return "error " + error->description;
        }
        const auto& message = std::get<WebSocketMessage>(result);
        return (message.kind == Kind::text ? "text " : "binary ") + message.payload;
    }

    bool opened(WebSocketTask& task, std::size_t events = 1) {
        return pumpUntil([&] {
            const auto all = delegate_->events();
            return all.size() == events && all.back() == std::pair(&task, std::string("opened"));
        });
    }

    std::shared_ptr<RecordingDelegate> delegate_ = std::make_shared<RecordingDelegate>();
    std::unique_ptr<WebSocketSession> session_ = QtWebSocketSession::factory(GetParam())(delegate_);
};

TEST_P(QtWebSocketSessionTest, CarriesTheTokenHeaderAndTextAndBinaryFramesBothWays) {
    Peer peer;
    auto task = start(peer.url());
    auto early = send(*task, Kind::text, R"({"type":"hello"})");  // held until the link is up
    ASSERT_TRUE(opened(*task));
    EXPECT_EQ(peer.socket()->request().rawHeader("x-device-token"), "tok-42");
    const std::string binary("\x00\xff{}", 4);
    auto late = send(*task, Kind::binary, binary);
    // A send completes once its bytes are written, which may be after the peer has them.
    ASSERT_TRUE(
        pumpUntil([&] { return peer.received.size() == 2 && early->get() && late->get(); }));
    EXPECT_EQ(peer.received[0], R"({"type":"hello"})");
    EXPECT_EQ(peer.received[1].toStdString(), binary);
    for (const auto& sent : {early->get(), late->get()}) {
        EXPECT_TRUE(sent && !sent->has_value());  // completed without an error
    }

    const QByteArray big(1 << 20, 'x');
    peer.socket()->sendTextMessage("ping");
    peer.socket()->sendBinaryMessage(QByteArray("\x01\x02", 2));
    peer.socket()->sendBinaryMessage(big);
    EXPECT_EQ(next(*task), "text ping");
    EXPECT_EQ(next(*task), "binary " + std::string("\x01\x02", 2));
    EXPECT_EQ(next(*task), "binary " + big.toStdString());
}

TEST_P(QtWebSocketSessionTest, CompletionsComeLaterOnTheSocketsThread) {
    Peer peer;
    auto task = start(peer.url());
    ASSERT_TRUE(opened(*task));
    peer.socket()->sendTextMessage("waiting");
    pumpFor(50ms);
    auto received = std::make_shared<Box<QThread*>>();
    auto sent = std::make_shared<Box<QThread*>>();
    task->receive([received](auto) { received->set(QThread::currentThread()); });
    task->send({Kind::text, "x"}, [sent](SendResult) { sent->set(QThread::currentThread()); });
    const bool onCaller = GetParam() == QtWebSocketSession::SocketThread::caller;
    if (onCaller) {
        // A message already waiting and a send on an open link still answer after the call.
        EXPECT_FALSE(received->get());
        EXPECT_FALSE(sent->get());
    }
    ASSERT_TRUE(pumpUntil([&] { return received->get() && sent->get(); }));
    EXPECT_EQ(*received->get() == QThread::currentThread(), onCaller);
    EXPECT_EQ(*sent->get() == QThread::currentThread(), onCaller);
}

TEST_P(QtWebSocketSessionTest, ReportsThePeersCloseCodeAndReasonAndFailsReceives) {
    Peer peer;
    auto task = start(peer.url());
    ASSERT_TRUE(opened(*task));
    auto pending = receive(*task);
    peer.socket()->close(static_cast<QWebSocketProtocol::CloseCode>(4401), "bad token");
    ASSERT_TRUE(pumpUntil([&] { return delegate_->events().size() == 2 && pending->get(); }));
    EXPECT_EQ(delegate_->events()[1], std::pair(task.get(), std::string("closed 4401 bad token")));
    EXPECT_TRUE(std::holds_alternative<WebSocketError>(*pending->get()));
    EXPECT_TRUE(next(*task).starts_with("error ")) << "and so does every later receive";
}

TEST_P(QtWebSocketSessionTest, ALinkDroppedWithoutACloseHandshakeIsAnErrorNotAClose) {
    Peer peer;
    auto task = start(peer.url());
    ASSERT_TRUE(opened(*task));
    peer.socket()->abort();
    EXPECT_TRUE(next(*task).starts_with("error "));
    pumpFor(50ms);
    EXPECT_EQ(delegate_->events().size(), 1u);
}

TEST_P(QtWebSocketSessionTest, AConnectionThatNeverOpensEndsInAReceiveErrorAlone) {
    testing::ScriptedServer silent(std::nullopt);
    testing::ScriptedServer refusing("HTTP/1.1 401 Unauthorized\r\nContent-Length: 0\r\n\r\n");
    EXPECT_TRUE(next(*start("ws" + silent.url().substr(4), 300ms))
                    .starts_with("error The request timed out"));
    for (const auto& url :
         {"ws" + refusing.url().substr(4), std::string("http://127.0.0.1:1/device"),
          "ws://127.0.0.1:" + std::to_string(testing::refusedPort()) + "/"}) {
        EXPECT_TRUE(next(*start(url)).starts_with("error ")) << url;
    }
    EXPECT_TRUE(delegate_->events().empty());
}

TEST_P(QtWebSocketSessionTest, SecureLinksCheckTheCertificateAndTheServerName) {
    const auto& pki = testing::testPki();
    Peer good(pki.serverCertificate, pki.serverKey);
    Peer misnamed(pki.localhostOnlyCertificate, pki.localhostOnlyKey);
    {
        testing::ScopedEnv ca("VELMORAND_CA_FILE", pki.caCertificate.c_str());
        auto task = start(good.url("wss"));
        EXPECT_TRUE(opened(*task));
        EXPECT_TRUE(next(*start(misnamed.url("wss"))).starts_with("error "));
        // The same certificate is fine under the name it carries.
        auto byName = start(misnamed.url("wss", "localhost"));
        EXPECT_TRUE(opened(*byName, 2));
    }
    testing::ScopedEnv noCa("VELMORAND_CA_FILE", nullptr);
    EXPECT_TRUE(next(*start(good.url("wss"))).starts_with("error "));
    EXPECT_EQ(delegate_->events().size(), 2u);
}

TEST_P(QtWebSocketSessionTest, CancellingEndsTheTaskQuietly) {
    Peer peer;
    auto task = start(peer.url());
    ASSERT_TRUE(opened(*task));
    auto pending = receive(*task);
    task->cancel();
    ASSERT_TRUE(pumpUntil([&] { return pending->get().has_value(); }));
    EXPECT_EQ(std::get<WebSocketError>(*pending->get()).description, "Cancelled");
    auto sent = send(*task, Kind::text, "late");
    ASSERT_TRUE(pumpUntil([&] { return sent->get().has_value(); }));
    EXPECT_TRUE(sent->get()->has_value());
    ASSERT_TRUE(pumpUntil([&] { return peer.closeCodes.size() == 1; }));
    EXPECT_EQ(peer.closeCodes[0], QWebSocketProtocol::CloseCodeGoingAway);
    EXPECT_EQ(delegate_->events().size(), 1u);  // no close event for a task the owner cancelled
}

TEST_P(QtWebSocketSessionTest, TheSessionKeepsARunningTaskAliveForItsEvents) {
    Peer peer;
    auto box = receive(*start(peer.url()));
    peer.socket()->sendTextMessage("still here");
    ASSERT_TRUE(pumpUntil([&] { return box->get().has_value(); }));
    EXPECT_EQ(std::get<WebSocketMessage>(*box->get()).payload, "still here");
}

TEST_P(QtWebSocketSessionTest, DestroyingTheSessionClosesItsSocketsWithoutFurtherEvents) {
    Peer peer;
    auto task = start(peer.url());
    ASSERT_TRUE(opened(*task));
    auto pending = receive(*task);
    session_.reset();
    ASSERT_TRUE(pumpUntil([&] { return peer.closeCodes.size() == 1; }));
    pumpFor(50ms);
    EXPECT_FALSE(pending->get());
    EXPECT_EQ(delegate_->events().size(), 1u);
    // A task outliving its session answers nothing, and does not crash.
    task->receive([](auto) { ADD_FAILURE() << "completion after end"; });
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
