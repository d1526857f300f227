#include "velmorand/qt/QtWebSocketSession.h"

#include <QCoreApplication>
#include <QNetworkRequest>
#include <QObject>
#include <QSslSocket>
#include <QThread>
#include <QTimer>
#include <QUrl>
#include <QWebSocket>
#include <algorithm>
#include <cassert>
#include <chrono>
#include <cstdlib>
#include <deque>
#include <mutex>
#include <string_view>
#include <unordered_set>
#include <utility>

#include "RequestErrors.h"
#include "TlsTrust.h"

// Either choice of socket thread keeps the platform contract: every event and completion comes
// from a queued call, never from inside the caller's own call, so the owner may call back in.
// The relay client re-posts them to its main queue in any case; on the caller's thread that is a
// cheap same-thread post instead of a hop across threads.

namespace velmorand {

namespace {

constexpr const char* kNotConnected = "Socket is not connected";
constexpr const char* kNotReading = "The peer has stopped reading what is sent to it";
constexpr const char* kFlooded = "The peer sends faster than its messages can be handled";

using Clock = std::chrono::steady_clock;

class QtWebSocketTask;

}  // namespace

struct QtWebSocketSession::Shared {
    std::shared_ptr<WebSocketSessionDelegate> delegate;
    // The session's own network thread; absent when the sockets live on the creating thread.
    std::unique_ptr<QThread> thread;

    // Guards `context` only; null once the session has shut down.
    std::mutex mutex;
    QObject* context = nullptr;

    // Touched on the sockets' thread only.
    bool stopped = false;
    std::unordered_set<std::shared_ptr<QtWebSocketTask>> live;

    // Runs `work` on the sockets' thread, unless the session has shut down.
    template <typename Work>
    void post(Work&& work) {
        std::lock_guard lock(mutex);
        if (context != nullptr) {
            QMetaObject::invokeMethod(context, std::forward<Work>(work), Qt::QueuedConnection);
        }
    }
};

namespace {

using Shared = QtWebSocketSession::Shared;

class QtWebSocketTask : public WebSocketTask, public std::enable_shared_from_this<QtWebSocketTask> {
  public:
    QtWebSocketTask(std::shared_ptr<Shared> shared, WebSocketRequest request)
        : shared_(std::move(shared)), request_(std::move(request)) {}

    void resume() override {
        shared_->post([self = shared_from_this()] { self->start(); });
    }

    void cancel() override {
        shared_->post([self = shared_from_this()] { self->end(requestError::kCancelled, true); });
    }

    void send(WebSocketMessage message, SendCompletion completion) override {
        shared_->post([self = shared_from_this(), message = std::move(message),
                       completion = std::move(completion)]() mutable {
            self->queueSend(std::move(message), std::move(completion));
        });
    }

    void receive(ReceiveCompletion completion) override {
        shared_->post([self = shared_from_this(), completion = std::move(completion)]() mutable {
            self->queueReceive(std::move(completion));
        });
    }

    // On the sockets' thread, as the session shuts down: no further events or completions.
    void abandon() {
        receives_.clear();
        sends_.clear();
        unwritten_.clear();
        ended_ = true;
        if (socket_ != nullptr) {
            QObject::disconnect(socket_, nullptr, socket_, nullptr);
            socket_->abort();
            delete socket_;
            socket_ = nullptr;
        }
    }

  private:
    void start() {
        if (started_ || ended_ || shared_->stopped) {
            return;
        }
        started_ = true;
        shared_->live.insert(shared_from_this());

        const QUrl url(QString::fromStdString(request_.url), QUrl::StrictMode);
        if (!url.isValid() ||
            (url.scheme() != QLatin1String("ws") && url.scheme() != QLatin1String("wss"))) {
            end("Bad URL: " + request_.url, true);
            return;
        }
        // Parented to the session's context, so that a socket still closing is deleted with it.
        QObject* context = nullptr;
        {
            std::lock_guard lock(shared_->mutex);
            context = shared_->context;
        }
        socket_ = new QWebSocket(QString(), QWebSocketProtocol::VersionLatest, context);
        // Qt refuses a frame by its header, before reading its payload, and closes with 1009.
        socket_->setMaxAllowedIncomingMessageSize(WebSocketLimits::kMaxIncomingMessageBytes);
        socket_->setMaxAllowedIncomingFrameSize(WebSocketLimits::kMaxIncomingMessageBytes);
        if (url.scheme() == QLatin1String("wss")) {
            socket_->setSslConfiguration(qtdetail::clientTlsConfiguration());
        }
        QObject::connect(socket_, &QWebSocket::connected, socket_, [this] { onConnected(); });
        QObject::connect(socket_, &QWebSocket::textMessageReceived, socket_,
                         [this](const QString& text) {
                             deliver({WebSocketMessage::Kind::text, text.toStdString()});
                         });
        QObject::connect(socket_, &QWebSocket::binaryMessageReceived, socket_,
                         [this](const QByteArray& bytes) {
                             deliver({WebSocketMessage::Kind::binary, bytes.toStdString()});
                         });
        QObject::connect(socket_, qOverload<QAbstractSocket::SocketError>(&QWebSocket::error),
                         socket_, [this](QAbstractSocket::SocketError) {
                             if (!lastError_) {
                                 lastError_ = socket_->errorString().toStdString();
                             }
                         });
        // Our own closes disconnect every signal first, so this hears only the peer's close frame.
        QObject::connect(socket_, &QWebSocket::aboutToClose, socket_,
                         [this] { peerClosed_ = true; });
        QObject::connect(socket_, &QWebSocket::disconnected, socket_, [this] { onDisconnected(); });
        QObject::connect(socket_, &QWebSocket::bytesWritten, socket_,
                         [this] { completeWritten(); });
        stallTimer_ = new QTimer(socket_);
        QObject::connect(stallTimer_, &QTimer::timeout, socket_, [this] { checkStall(); });

        const auto timeout =
            request_.timeout.count() > 0 ? request_.timeout : std::chrono::milliseconds{60'000};
        handshakeTimer_ = new QTimer(socket_);
        handshakeTimer_->setSingleShot(true);
        QObject::connect(handshakeTimer_, &QTimer::timeout, socket_, [this] {
            if (!opened_) {
                end(requestError::kTimedOut, true);
            }
        });
        handshakeTimer_->start(timeout);
        QNetworkRequest networkRequest(url);
        for (const auto& [name, value] : request_.headers) {
            networkRequest.setRawHeader(QByteArray::fromStdString(name),
                                        QByteArray::fromStdString(value));
        }
        socket_->open(networkRequest);
    }

    void onConnected() {
        if (ended_) {
            return;
        }
        opened_ = true;
        handshakeTimer_->stop();
        lastWrite_ = Clock::now();
        stallTimer_->start(std::chrono::seconds(1));
        if (!shared_->stopped) {
            shared_->delegate->opened(shared_from_this());
        }
        auto waiting = std::move(sends_);
        sends_.clear();
        for (auto& [message, completion] : waiting) {
            // One of them may have ended the link (or the delegate did): the rest fail with it.
            if (ended_) {
                completion(WebSocketError{endReason_});
            } else {
                transmit(message, std::move(completion));
            }
        }
    }

    void onDisconnected() {
        if (ended_) {
            return;
        }
        Closing closing;
        // A link lost without a close frame is an error, not a close with a made-up code. Over
        // TLS the peer's hang-up may be reported as an error before its close frame is read, so a
        // close frame counts even after an error.
        if (opened_ && (peerClosed_ || !lastError_) && !shared_->stopped) {
            const QByteArray reason = socket_->closeReason().toUtf8();
            closing.code = static_cast<int>(socket_->closeCode());
            closing.reason =
                reason.isEmpty() ? std::nullopt : std::optional<std::string>(reason.toStdString());
        }
        // A refused connection can report its cause after the disconnect; the socket knows it.
        if (!lastError_ && socket_->error() != QAbstractSocket::UnknownSocketError) {
            lastError_ = socket_->errorString().toStdString();
        }
        closing.endReason = lastError_.value_or(kNotConnected);
        closing_ = std::move(closing);
        // The messages that came before the close are handed on before it.
        dropSocket(false);
        if (inbox_.empty()) {
            finishClosing();
        }
    }

    void finishClosing() {
        Closing closing = std::move(*closing_);
        closing_.reset();
        if (closing.code && !shared_->stopped) {
            shared_->delegate->closed(shared_from_this(), *closing.code, closing.reason);
        }
        end(std::move(closing.endReason), false);
    }

    // Ends the task: pending and later receives and sends fail with `reason`.
    void end(std::string reason, bool closeSocket) {
        if (ended_) {
            return;
        }
        // The session's hold on the task may be the last one.
        const auto self = shared_from_this();
        ended_ = true;
        endReason_ = std::move(reason);
        dropSocket(closeSocket && opened_);
        auto receives = std::move(receives_);
        receives_.clear();
        for (auto& completion : receives) {
            completion(WebSocketError{endReason_});
        }
        auto sends = std::move(sends_);
        sends_.clear();
        auto unwritten = std::move(unwritten_);
        unwritten_.clear();
        for (auto& send : unwritten) {
            send.second(WebSocketError{endReason_});
        }
        for (auto& send : sends) {
            send.second(WebSocketError{endReason_});
        }
        // The session let go of the task; whoever still holds it may still ask for receives.
        shared_->live.erase(self);
    }

    // Abandons a link that would otherwise make this side hold more and more: what it delivered
    // and was not yet taken goes with it.
    void giveUp(const char* reason) {
        inbox_.clear();
        inboxBytes_ = 0;
        end(reason, false);
    }

    // Lets go of the socket; `politely` says goodbye with a close frame first, and the socket
    // lingers until the peer has answered it (or the session ends).
    void dropSocket(bool politely) {
        if (socket_ == nullptr) {
            return;
        }
        QWebSocket* socket = std::exchange(socket_, nullptr);
        handshakeTimer_ = nullptr;
        stallTimer_ = nullptr;
        QObject::disconnect(socket, nullptr, socket, nullptr);
        if (politely && socket->state() == QAbstractSocket::ConnectedState) {
            QObject::connect(socket, &QWebSocket::disconnected, socket, &QObject::deleteLater);
            socket->close(QWebSocketProtocol::CloseCodeGoingAway);
        } else {
            socket->abort();
            socket->deleteLater();
        }
    }

    void deliver(WebSocketMessage message) {
        if (ended_) {
            return;
        }
        if (!receives_.empty()) {
            auto completion = std::move(receives_.front());
            receives_.pop_front();
            completion(std::move(message));
            return;
        }
        inboxBytes_ += message.payload.size();
        inbox_.push_back(std::move(message));
        if (inbox_.size() > WebSocketLimits::kMaxWaitingMessages ||
            inboxBytes_ > WebSocketLimits::kMaxIncomingMessageBytes) {
            giveUp(kFlooded);
        }
    }

    void queueReceive(ReceiveCompletion completion) {
        if (shared_->stopped) {
            return;
        }
        if (!inbox_.empty()) {
            auto message = std::move(inbox_.front());
            inbox_.pop_front();
            inboxBytes_ -= message.payload.size();
            completion(std::move(message));
            if (inbox_.empty() && closing_ && !ended_) {
                finishClosing();
            }
        } else if (ended_) {
            completion(WebSocketError{endReason_});
        } else {
            receives_.push_back(std::move(completion));
        }
    }

    void queueSend(WebSocketMessage message, SendCompletion completion) {
        if (shared_->stopped) {
            return;
        }
        if (ended_) {
            completion(WebSocketError{endReason_});
        } else if (!opened_) {
            sends_.emplace_back(std::move(message), std::move(completion));
        } else {
            transmit(message, std::move(completion));
        }
    }

    // What the socket holds that the system has not taken. Over TLS, the WebSocket's count stops
    // at what waits to be encrypted; what waits encrypted is the TLS socket's inside it (Qt
    // encrypts at its next turn, into a buffer of no bound).
    qint64 unwrittenBytes() const {
        qint64 unwritten = socket_->bytesToWrite();
        if (const auto* tls = socket_->findChild<QSslSocket*>()) {
            unwritten += tls->encryptedBytesToWrite();
        }
        return unwritten;
    }

    // A send completes when the socket's buffer has drained past its last byte. Qt appends a
    // message to that buffer whole and writes it out later, so what the buffer grew by is the
    // message as it goes on the wire (frame headers and TLS records included or not, the count
    // stays in one unit). Other writes (automatic pongs) only make the count cautious.
    void transmit(const WebSocketMessage& message, SendCompletion completion) {
        const qint64 before = unwrittenBytes();
        if (static_cast<std::uint64_t>(before) + message.payload.size() >
            WebSocketLimits::kMaxUnwrittenBytes) {
            completion(WebSocketError{kNotReading});
            giveUp(kNotReading);
            return;
        }

        const qint64 sent =
            message.kind == WebSocketMessage::Kind::text
                ? socket_->sendTextMessage(QString::fromStdString(message.payload))
                : socket_->sendBinaryMessage(QByteArray::fromStdString(message.payload));
        if (sent < 0 || (sent == 0 && !message.payload.empty())) {
            completion(WebSocketError{socket_->errorString().toStdString()});
            return;
        }
        queuedBytes_ += static_cast<std::uint64_t>(std::max<qint64>(0, unwrittenBytes() - before));
        unwritten_.emplace_back(queuedBytes_, std::move(completion));
        completeWritten();
    }

    // Bytes that wait and do not move: the peer stopped reading, and would make them pile up.
    // (Qt's bytesWritten says only that a frame went into the socket's buffer, not that the
    // system took it, so progress is read off the buffer's size.)
    void checkStall() {
        if (socket_ == nullptr) {
            return;
        }
        const auto pending = static_cast<std::uint64_t>(std::max<qint64>(0, unwrittenBytes()));
        const std::uint64_t written = queuedBytes_ > pending ? queuedBytes_ - pending : 0;
        if (pending == 0 || written > writtenAtCheck_) {
            writtenAtCheck_ = written;
            lastWrite_ = Clock::now();
        } else if (Clock::now() - lastWrite_ >= WebSocketLimits::kLongestWriteStall) {
            giveUp(kNotReading);
        }
    }

    void completeWritten() {
        if (socket_ == nullptr) {
            return;
        }
        const auto pending = static_cast<std::uint64_t>(std::max<qint64>(0, unwrittenBytes()));
        const std::uint64_t written = queuedBytes_ > pending ? queuedBytes_ - pending : 0;
        while (!unwritten_.empty() && unwritten_.front().first <= written) {
            auto completion = std::move(unwritten_.front().second);
            unwritten_.pop_front();
            completion(std::nullopt);
        }
    }

    std::shared_ptr<Shared> shared_;
    const WebSocketRequest request_;

    // Everything below is touched on the sockets' thread only.
    QWebSocket* socket_ = nullptr;
    QTimer* handshakeTimer_ = nullptr;
    QTimer* stallTimer_ = nullptr;
    // When the count of bytes written last grew (or nothing was waiting), and that count.
    Clock::time_point lastWrite_;
    std::uint64_t writtenAtCheck_ = 0;
    bool started_ = false;
    bool opened_ = false;
    bool ended_ = false;
    bool peerClosed_ = false;
    std::string endReason_;
    std::optional<std::string> lastError_;
    std::deque<WebSocketMessage> inbox_;
    std::uint64_t inboxBytes_ = 0;
    // The peer has gone while messages still waited in the inbox: how it went, told once they
    // have been handed on. `code` is set for a close frame.
    struct Closing {
        std::optional<int> code;
        std::optional<std::string> reason;
        std::string endReason;
    };
    std::optional<Closing> closing_;
    std::deque<ReceiveCompletion> receives_;
    std::deque<std::pair<WebSocketMessage, SendCompletion>> sends_;
    // Sends handed to the socket and not yet written out, by where their last byte ends.
    std::deque<std::pair<std::uint64_t, SendCompletion>> unwritten_;
    std::uint64_t queuedBytes_ = 0;
};

}  // namespace

QtWebSocketSession::QtWebSocketSession(std::shared_ptr<WebSocketSessionDelegate> delegate,
                                       SocketThread socketThread)
    : shared_(std::make_shared<Shared>()) {
    shared_->delegate = std::move(delegate);
    auto* context = new QObject();
    if (socketThread == SocketThread::own) {
        shared_->thread = std::make_unique<QThread>();
        shared_->thread->setObjectName(QStringLiteral("velmorand-websocket"));
        context->moveToThread(shared_->thread.get());
        shared_->thread->start();
    }
    shared_->context = context;
}

QtWebSocketSession::~QtWebSocketSession() {
    QObject* context = nullptr;
    {
        std::lock_guard lock(shared_->mutex);
        context = shared_->context;
        shared_->context = nullptr;
    }
    Shared* shared = shared_.get();
    const auto abandonAll = [shared] {
        shared->stopped = true;
        auto live = std::move(shared->live);
        shared->live.clear();
        for (const auto& task : live) {
            task->abandon();
        }
    };
    if (!shared_->thread) {
        // Sockets still closing are children of the context and go with it.
        assert(context->thread() == QThread::currentThread());
        abandonAll();
        delete context;
        return;
    }
    QThread* owner = QThread::currentThread();
    QMetaObject::invokeMethod(
        context,
        [abandonAll, context, owner] {
            abandonAll();
            // Sockets of tasks that ended earlier were deleted later; do it before the loop ends.
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
            context->moveToThread(owner);
        },
        Qt::BlockingQueuedConnection);
    shared_->thread->quit();
    shared_->thread->wait();
    delete context;
}

std::shared_ptr<WebSocketTask> QtWebSocketSession::makeTask(const WebSocketRequest& request) {
    return std::make_shared<QtWebSocketTask>(shared_, request);
}

WebSocketSessionFactory QtWebSocketSession::factory(SocketThread socketThread) {
    return [socketThread](std::shared_ptr<WebSocketSessionDelegate> delegate) {
        return std::unique_ptr<WebSocketSession>(
            new QtWebSocketSession(std::move(delegate), socketThread));
    };
}

// The sockets live on the caller's (main) thread: with no thread hop per probe the relay client's
// round trip met its targets, where the network thread did not (median 1.2x against 1.4x the
// floor; see docs/performance.md). What it costs: while the main thread is busy nobody reads the
// socket, so frames wait in the kernel's buffer (which then pushes back on the relay) and the
// automatic answer to WebSocket-level pings waits too, and a send made from another thread is
// written only when the main thread is free. None of that loses anything here: the client
// handles every frame and answers the relay's "ping" messages on the main thread in either
// case, so a busy main thread delays its answers just the same, and all its sends are replies
// made on the main thread. A sender on another thread (a video encoder) would want `own`.
WebSocketSessionFactory QtWebSocketSession::factory() {
    static const SocketThread chosen = [] {
        const char* fromEnvironment = std::getenv("VELMORAND_SOCKET_THREAD");
        return fromEnvironment != nullptr && std::string_view(fromEnvironment) == "own"
                   ? SocketThread::own
                   : SocketThread::caller;
    }();
    return factory(chosen);
}

}  // namespace velmorand
