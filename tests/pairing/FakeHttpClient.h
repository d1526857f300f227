#pragma once

#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "velmorand/platform/HttpClient.h"
#include "velmorand/platform/MainQueue.h"

namespace velmorand::testing {

inline HttpOutcome answer(int statusCode, std::optional<std::string> body) {
    return HttpResponse{statusCode, std::move(body)};
}
inline HttpOutcome transportError(std::string description) {
    return HttpTransportError{std::move(description)};
}

// Answers from scripted routes (the latest route whose method and URL prefix match wins; an
// unrouted request fails in transport) and records every request. `send` completes on the main
// queue.
class FakeHttpClient : public HttpClient {
  public:
    explicit FakeHttpClient(MainQueue& mainQueue) : mainQueue_(mainQueue) {}

    void route(std::string method, std::string urlPrefix, HttpOutcome outcome) {
        std::lock_guard lock(mutex_);
        routes_.push_back({std::move(method), std::move(urlPrefix), std::move(outcome)});
    }

    HttpOutcome exchange(const HttpRequest& request) override {
        std::lock_guard lock(mutex_);
        requests_.push_back(request);
        return answerFor(request);
    }

    void send(HttpRequest request, Completion completion) override {
        std::unique_lock lock(mutex_);
        requests_.push_back(request);
        auto outcome = answerFor(request);
        lock.unlock();
        mainQueue_.post([completion = std::move(completion), outcome = std::move(outcome)] {
            completion(outcome);
        });
    }

    // Every request so far, or those of `method` whose URL starts with `urlPrefix`.
    std::vector<HttpRequest> requests(std::string_view method = {},
                                      std::string_view urlPrefix = {}) const {
        std::lock_guard lock(mutex_);
        std::vector<HttpRequest> matching;
        for (const auto& request : requests_) {
            if ((method.empty() || request.method == method) &&
                request.url.starts_with(urlPrefix)) {
                matching.push_back(request);
            }
        }
        return matching;
    }

  private:
    struct Route {
        std::string method;
        std::string urlPrefix;
        HttpOutcome outcome;
    };

    HttpOutcome answerFor(const HttpRequest& request) const {
        for (auto route = routes_.rbegin(); route != routes_.rend(); ++route) {
            if (route->method == request.method && request.url.starts_with(route->urlPrefix)) {
                return route->outcome;
            }
        }
        return HttpTransportError{"no route to " + request.url};
    }

    MainQueue& mainQueue_;
    mutable std::mutex mutex_;
    std::vector<Route> routes_;
    std::vector<HttpRequest> requests_;
};

}  // namespace velmorand::testing
