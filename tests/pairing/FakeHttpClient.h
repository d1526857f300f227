#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
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

// Answers from scripted routes and records every request. Completions of `send` are posted to
// the main queue. With `holdExchanges()`, blocking exchanges wait until the test releases them,
// so that several can be in flight at once.
class FakeHttpClient : public HttpClient {
  public:
    explicit FakeHttpClient(MainQueue& mainQueue) : mainQueue_(mainQueue) {}

    // Answers requests of `method` whose URL starts with `urlPrefix`. A later route wins over an
    // earlier one; an unrouted request fails in transport.
    void route(std::string method, std::string urlPrefix, HttpOutcome outcome) {
        std::lock_guard lock(mutex_);
        routes_.insert(routes_.begin(),
                       Route{std::move(method), std::move(urlPrefix), std::move(outcome)});
    }

    HttpOutcome exchange(const HttpRequest& request) override {
        std::unique_lock lock(mutex_);
        requests_.push_back(request);
        if (!holding_) {
            return answerFor(request);
        }
        parked_.push_back(Parked{request, std::nullopt});
        const auto index = parked_.size() - 1;
        changed_.notify_all();
        changed_.wait(lock, [&] { return parked_[index].outcome.has_value(); });
        return *parked_[index].outcome;
    }

    void send(HttpRequest request, Completion completion) override {
        HttpOutcome outcome = [&] {
            std::lock_guard lock(mutex_);
            requests_.push_back(request);
            return answerFor(request);
        }();
        mainQueue_.post([completion = std::move(completion), outcome = std::move(outcome)] {
            completion(outcome);
        });
    }

    void holdExchanges() {
        std::lock_guard lock(mutex_);
        holding_ = true;
    }

    // Waits until `count` exchanges are parked in total. False when they did not come.
    bool waitForParked(std::size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, std::chrono::seconds(20),
                                 [&] { return parked_.size() >= count; });
    }

    // Lets the parked exchange whose body contains `bodyPart` return `outcome`.
    bool release(std::string_view bodyPart, HttpOutcome outcome) {
        std::lock_guard lock(mutex_);
        for (auto& parked : parked_) {
            if (!parked.outcome && parked.request.body &&
                parked.request.body->find(bodyPart) != std::string::npos) {
                parked.outcome = std::move(outcome);
                changed_.notify_all();
                return true;
            }
        }
        return false;
    }

    std::vector<HttpRequest> requests() const {
        std::lock_guard lock(mutex_);
        return requests_;
    }

    std::vector<HttpRequest> requestsTo(std::string_view urlPrefix) const {
        std::vector<HttpRequest> matching;
        for (auto& request : requests()) {
            if (request.url.starts_with(urlPrefix)) {
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
    struct Parked {
        HttpRequest request;
        std::optional<HttpOutcome> outcome;
    };

    HttpOutcome answerFor(const HttpRequest& request) const {
        for (const auto& route : routes_) {
            if (route.method == request.method && request.url.starts_with(route.urlPrefix)) {
                return route.outcome;
            }
        }
        return HttpTransportError{"no route to " + request.url};
    }

    MainQueue& mainQueue_;
    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Route> routes_;
    std::vector<HttpRequest> requests_;
    std::vector<Parked> parked_;
    bool holding_ = false;
};

}  // namespace velmorand::testing
