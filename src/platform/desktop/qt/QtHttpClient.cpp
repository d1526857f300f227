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
#include <variant>
#include <vector>

#include "RequestErrors.h"
#include "TlsTrust.h"
#include "velmorand/qt/QtMainQueue.h"

namespace velmorand {

namespace {

constexpr const char* kTooLarge = "Response too large";
// As many as the platform's own URL session follows before it gives up.
constexpr int kMaxRedirects = 16;

bool isRedirect(int status) {
    return status == 301 || status == 302 || status == 303 || status == 307 || status == 308;
}

// Qt's own text where it has one; a plain description where it has only "Unknown error".
std::string describe(QNetworkReply::NetworkError error, const QString& text) {
    using E = QNetworkReply::NetworkError;
    if (!text.isEmpty() && !text.contains(QLatin1String("Unknown error"))) {
        return text.toStdString();
    }
    switch (error) {
        case E::ConnectionRefusedError:
            return "Connection refused";
        case E::RemoteHostClosedError:
            return "The server closed the connection before it answered";
        case E::HostNotFoundError:
            return "Server not found";
        case E::SslHandshakeFailedError:
            return "The secure connection could not be made";
        case E::TooManyRedirectsError:
            return "Too many redirects";
        case E::InsecureRedirectError:
            return "Redirected from https to http";
        default:
            return "The connection failed (network error " +
                   std::to_string(static_cast<int>(error)) + ")";
    }
}

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

        auto exchange = std::make_shared<Exchange>();
        exchange->done = std::move(done);
        exchange->isHead = request.method == "HEAD";
        exchange->method = QByteArray::fromStdString(request.method);
        if (request.body) {
            exchange->payload = QByteArray::fromStdString(*request.body);
        }
        for (const auto& [name, value] : request.headers) {
            exchange->headers.emplace_back(QByteArray::fromStdString(name),
                                           QByteArray::fromStdString(value));
        }
        exchange->timeout =
            request.timeout.count() > 0 ? request.timeout : HttpRequest::kDefaultTimeout;
        issue(url, exchange);
    }

    // Ends every exchange still running; the worker is left without a network manager.
    void shutDown() {
        auto running = std::move(inFlight_);
        inFlight_.clear();
        for (auto& [reply, exchange] : running) {
            QObject::disconnect(reply, nullptr, this, nullptr);
            if (!exchange->ended) {
                exchange->ended = true;
                exchange->done(HttpTransportError{requestError::kCancelled});
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
        QByteArray method;
        std::optional<QByteArray> payload;
        std::vector<std::pair<QByteArray, QByteArray>> headers;
        std::chrono::milliseconds timeout{0};
        int redirects = 0;
        QByteArray body;
        std::optional<std::string> abortReason;
        bool isHead = false;
        bool ended = false;
    };

    // One hop of the exchange. Redirects are followed here, not by Qt, whose own following lost a
    // redirected POST's body on a kept-alive connection now and then: as the platform's session
    // follows them, 307 and 308 keep the method and body, the others turn into a GET, never from
    // https down to http, at most 16.
    void issue(const QUrl& url, const std::shared_ptr<Exchange>& exchange) {
        QNetworkRequest networkRequest(url);
        for (const auto& [name, value] : exchange->headers) {
            networkRequest.setRawHeader(name, value);
        }
        networkRequest.setTransferTimeout(static_cast<int>(exchange->timeout.count()));
        networkRequest.setAttribute(QNetworkRequest::RedirectPolicyAttribute,
                                    QNetworkRequest::ManualRedirectPolicy);
        if (url.scheme() == QLatin1String("https")) {
            networkRequest.setSslConfiguration(tls_);
        }
        QNetworkReply* reply = nullptr;
        if (exchange->isHead) {
            // Only a request Qt knows to be HEAD is read without waiting for a body.
            reply = manager_->head(networkRequest);
        } else if (exchange->payload) {
            reply =
                manager_->sendCustomRequest(networkRequest, exchange->method, *exchange->payload);
        } else {
            reply = manager_->sendCustomRequest(networkRequest, exchange->method);
        }
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
                         [this, reply, exchange] { finish(reply, exchange); });
    }

    // Where a redirect leads, having turned the exchange into its next hop; or why it cannot be
    // followed.
    std::variant<QUrl, std::string> follow(QNetworkReply* reply, Exchange& exchange, int status) {
        if (exchange.redirects == kMaxRedirects) {
            return std::string("Too many redirects");
        }
        const QUrl next = reply->url().resolved(QUrl::fromEncoded(reply->rawHeader("Location")));
        if (!next.isValid() || next.host().isEmpty() ||
            (next.scheme() != QLatin1String("http") && next.scheme() != QLatin1String("https"))) {
            return std::string("Redirected to a URL that is not http or https");
        }
        if (reply->url().scheme() == QLatin1String("https") &&
            next.scheme() != QLatin1String("https")) {
            return std::string("Redirected from https to http");
        }
        ++exchange.redirects;
        exchange.body.clear();
        if (status != 307 && status != 308 && !exchange.isHead) {
            exchange.method = "GET";
            exchange.payload.reset();
            std::erase_if(exchange.headers, [](const auto& header) {
                return header.first.compare("content-type", Qt::CaseInsensitive) == 0;
            });
        }
        return next;
    }

    void finish(QNetworkReply* reply, const std::shared_ptr<Exchange>& exchange) {
        inFlight_.erase(reply);
        reply->deleteLater();
        if (exchange->ended) {
            return;
        }
        const QVariant status = reply->attribute(QNetworkRequest::HttpStatusCodeAttribute);
        if (!exchange->abortReason && status.isValid() && isRedirect(status.toInt()) &&
            reply->hasRawHeader("Location")) {
            auto next = follow(reply, *exchange, status.toInt());
            if (const auto* url = std::get_if<QUrl>(&next)) {
                issue(*url, exchange);
                return;
            }
            exchange->ended = true;
            exchange->done(HttpTransportError{std::get<std::string>(next)});
            return;
        }
        exchange->ended = true;
        exchange->done(outcome(reply, *exchange));
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
                return HttpTransportError{requestError::kTimedOut};
            }
            return HttpTransportError{describe(error, reply->errorString())};
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
