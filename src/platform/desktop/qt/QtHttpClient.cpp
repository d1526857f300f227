#include "velmorand/qt/QtHttpClient.h"

#include <QByteArray>
#include <QNetworkAccessManager>
#include <QNetworkReply>
#include <QNetworkRequest>
#include <QObject>
#include <QSslConfiguration>
#include <QThread>
#include <QUrl>
#include <cassert>
#include <future>
#include <optional>
#include <unordered_map>
#include <utility>

#include "TlsTrust.h"
#include "velmorand/qt/QtMainQueue.h"

namespace velmorand {

namespace {

constexpr const char* kCancelled = "Cancelled";
constexpr const char* kTooLarge = "Response too large";
constexpr const char* kTimedOut = "The request timed out";
// As many as the platform's own URL session follows before it gives up.
constexpr int kMaxRedirects = 16;

// Qt reports HTTP error statuses as reply errors; those replies are still answers.
bool isHttpStatusError(QNetworkReply::NetworkError error) {
    using E = QNetworkReply::NetworkError;
    switch (error) {
        case E::NoError:
        case E::ContentAccessDenied:
        case E::ContentOperationNotPermittedError:
        case E::ContentNotFoundError:
        case E::AuthenticationRequiredError:
        case E::ProxyAuthenticationRequiredError:
        case E::ContentReSendError:
        case E::ContentConflictError:
        case E::ContentGoneError:
        case E::UnknownContentError:
        case E::ProtocolInvalidOperationError:
        case E::InternalServerError:
        case E::OperationNotImplementedError:
        case E::ServiceUnavailableError:
        case E::UnknownServerError:
            return true;
        default:
            return false;
    }
}

}  // namespace

// Lives on the network thread; every member is touched there only.
class QtHttpClient::Worker : public QObject {
  public:
    explicit Worker(std::size_t maxBodyBytes)
        : maxBodyBytes_(maxBodyBytes), tls_(qtdetail::clientTlsConfiguration()) {}

    void start(const HttpRequest& request, Completion done) {
        const QUrl url(QString::fromStdString(request.url), QUrl::StrictMode);
        if (!url.isValid() || url.scheme().isEmpty() || url.host().isEmpty()) {
            done(HttpTransportError{"Bad URL: " + request.url});
            return;
        }
        if (manager_ == nullptr) {
            manager_ = new QNetworkAccessManager(this);
        }

        QNetworkRequest networkRequest(url);
        for (const auto& [name, value] : request.headers) {
            networkRequest.setRawHeader(QByteArray::fromStdString(name),
                                        QByteArray::fromStdString(value));
        }
        const auto timeout =
            request.timeout.count() > 0 ? request.timeout : HttpRequest::kDefaultTimeout;
        networkRequest.setTransferTimeout(static_cast<int>(timeout.count()));
        // Redirects are followed as the platform's session follows them: 307 and 308 keep the
        // method and body, the others turn into a GET, and never from https down to http.
        networkRequest.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                                    QNetworkRequest::NoLessSafeRedirectPolicy);
        networkRequest.setMaximumRedirectsAllowed(kMaxRedirects);
        if (url.scheme() == QLatin1String("https")) {
            networkRequest.setSslConfiguration(tls_);
        }

        const QByteArray verb = QByteArray::fromStdString(request.method);
        QNetworkReply* reply = nullptr;
        if (request.method == "HEAD") {
            // Only a request Qt knows to be HEAD is read without waiting for a body.
            reply = manager_->head(networkRequest);
        } else if (request.body) {
            reply = manager_->sendCustomRequest(networkRequest, verb,
                                                QByteArray::fromStdString(*request.body));
        } else {
            reply = manager_->sendCustomRequest(networkRequest, verb);
        }

        auto exchange = std::make_shared<Exchange>();
        exchange->done = std::move(done);
        exchange->isHead = request.method == "HEAD";
        inFlight_.emplace(reply, exchange);

        QObject::connect(reply, &QNetworkReply::readyRead, this, [this, reply, exchange] {
            if (exchange->ended) {
                return;
            }
            exchange->body += reply->readAll();
            if (static_cast<std::size_t>(exchange->body.size()) > maxBodyBytes_) {
                exchange->abortReason = kTooLarge;
                reply->abort();
            }
        });
        QObject::connect(reply, &QNetworkReply::finished, this,
                         [this, reply, exchange] { finish(reply, *exchange); });
    }

    // Ends every exchange still running; the worker is left without a network manager.
    void shutDown() {
        auto running = std::move(inFlight_);
        inFlight_.clear();
        for (auto& [reply, exchange] : running) {
            QObject::disconnect(reply, nullptr, this, nullptr);
            if (!exchange->ended) {
                exchange->ended = true;
                exchange->done(HttpTransportError{kCancelled});
            }
            reply->abort();
            delete reply;
        }
        delete manager_;
        manager_ = nullptr;
    }

  private:
    struct Exchange {
        Completion done;
        QByteArray body;
        std::optional<std::string> abortReason;
        bool isHead = false;
        bool ended = false;
    };

    void finish(QNetworkReply* reply, Exchange& exchange) {
        inFlight_.erase(reply);
        reply->deleteLater();
        if (exchange.ended) {
            return;
        }
        exchange.ended = true;
        exchange.done(outcome(reply, exchange));
    }

    HttpOutcome outcome(QNetworkReply* reply, Exchange& exchange) {
        if (exchange.abortReason) {
            return HttpTransportError{*exchange.abortReason};
        }
        const auto error = reply->error();
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        const bool answered =
            status.isValid() ? isHttpStatusError(error) : error == QNetworkReply::NoError;
        if (!answered) {
            // Our own aborts carry a reason, so a cancelled operation here is the transfer
            // timeout firing.
            if (error == QNetworkReply::OperationCanceledError ||
                error == QNetworkReply::TimeoutError) {
                return HttpTransportError{kTimedOut};
            }
            return HttpTransportError{reply->errorString().toStdString()};
        }

        HttpResponse response;
        response.statusCode = status.isValid() ? status.toInt() : 0;
        exchange.body += reply->readAll();
        if (static_cast<std::size_t>(exchange.body.size()) > maxBodyBytes_) {
            return HttpTransportError{kTooLarge};
        }
        if (!(exchange.isHead || response.statusCode == 204 || response.statusCode == 304)) {
            response.body = exchange.body.toStdString();
        }
        return response;
    }

    std::size_t maxBodyBytes_;
    QSslConfiguration tls_;
    QNetworkAccessManager* manager_ = nullptr;
    std::unordered_map<QNetworkReply*, std::shared_ptr<Exchange>> inFlight_;
};

QtHttpClient::QtHttpClient(MainQueue& mainQueue, std::size_t maxBodyBytes)
    : mainQueue_(mainQueue),
      thread_(std::make_unique<QThread>()),
      worker_(std::make_unique<Worker>(maxBodyBytes)) {
    thread_->setObjectName(QStringLiteral("velmorand-http"));
    worker_->moveToThread(thread_.get());
    thread_->start();
}

QtHttpClient::~QtHttpClient() {
    QThread* owner = QThread::currentThread();
    Worker* worker = worker_.get();
    QMetaObject::invokeMethod(
        worker,
        [worker, owner] {
            worker->shutDown();
            // Handed back so that it can be destroyed here once the thread has ended.
            worker->moveToThread(owner);
        },
        Qt::BlockingQueuedConnection);
    thread_->quit();
    thread_->wait();
}

void QtHttpClient::dispatch(HttpRequest request, Completion done) {
    Worker* worker = worker_.get();
    QMetaObject::invokeMethod(
        worker,
        [worker, request = std::move(request), done = std::move(done)]() mutable {
            worker->start(request, std::move(done));
        },
        Qt::QueuedConnection);
}

HttpOutcome QtHttpClient::exchange(const HttpRequest& request) {
    // Waiting on the main thread would stall every completion the program relies on.
    assert(!QtMainQueue::isMainThread());
    assert(QThread::currentThread() != thread_.get());
    auto promise = std::make_shared<std::promise<HttpOutcome>>();
    auto result = promise->get_future();
    dispatch(request, [promise](HttpOutcome outcome) { promise->set_value(std::move(outcome)); });
    return result.get();
}

void QtHttpClient::send(HttpRequest request, Completion completion) {
    MainQueue* mainQueue = &mainQueue_;
    dispatch(std::move(request),
             [mainQueue, completion = std::move(completion)](HttpOutcome outcome) mutable {
                 mainQueue->post([completion = std::move(completion),
                                  outcome = std::move(outcome)] { completion(outcome); });
             });
}

}  // namespace velmorand
