#pragma once

#include <cstddef>
#include <memory>

#include "velmorand/platform/HttpClient.h"
#include "velmorand/platform/MainQueue.h"

class QThread;

namespace velmorand {

// HttpClient on a QNetworkAccessManager that lives on a network thread owned by the client.
// Redirects are followed, never from https to http; 4xx and 5xx (407 included) are answers; TLS
// is verified against the system's CAs plus those of the PEM file named by VELMORAND_CA_FILE
// (read at construction).
// Destroying the client ends every exchange still running with the transport error "Cancelled".
class QtHttpClient : public HttpClient {
  public:
    static constexpr std::size_t kDefaultMaxBodyBytes = 8 * 1024 * 1024;

    // Completions of `send` are posted to `mainQueue`, which must outlive the client.
    explicit QtHttpClient(MainQueue& mainQueue, std::size_t maxBodyBytes = kDefaultMaxBodyBytes);
    ~QtHttpClient() override;
    QtHttpClient(const QtHttpClient&) = delete;
    QtHttpClient& operator=(const QtHttpClient&) = delete;

    HttpOutcome exchange(const HttpRequest& request) override;
    void send(HttpRequest request, Completion completion) override;

  private:
    class Worker;

    void dispatch(HttpRequest request, Completion done);

    MainQueue& mainQueue_;
    std::unique_ptr<QThread> thread_;
    std::unique_ptr<Worker> worker_;
};

}  // namespace velmorand
