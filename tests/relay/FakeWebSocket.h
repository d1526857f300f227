#pragma once

#include <deque>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "velmorand/platform/WebSocket.h"

namespace velmorand::testing {

// A socket driven by the test: receives wait until the test delivers something, and sends are
// kept with their completions.
class FakeWebSocketTask : public WebSocketTask {
  public:
    void resume() override {}
    void cancel() override { cancelled = true; }
    void send(WebSocketMessage message, SendCompletion completion) override {
        sent.push_back(message.payload);
        sendCompletions.push_back(std::move(completion));
    }
    void receive(ReceiveCompletion completion) override {
        receives.push_back(std::move(completion));
    }

    // Completes the oldest armed receive, on the calling thread as a session's queue would.
    bool deliver(ReceiveResult result) {
        if (receives.empty()) {
            return false;
        }
        auto completion = std::move(receives.front());
        receives.pop_front();
        completion(std::move(result));
        return true;
    }
    bool deliverText(std::string text) {
        return deliver(WebSocketMessage{WebSocketMessage::Kind::text, std::move(text)});
    }
    bool fail(std::string description) { return deliver(WebSocketError{std::move(description)}); }

    bool cancelled = false;
    std::vector<std::string> sent;
    std::vector<SendCompletion> sendCompletions;
    std::deque<ReceiveCompletion> receives;
};

// Every session and task made through `factory()`; the tasks outlive their session.
class FakeWebSockets {
  public:
    WebSocketSessionFactory factory() {
        return [this](std::shared_ptr<WebSocketSessionDelegate> delegate) {
            ++sessionsMade;
            this->delegate = delegate;
            return std::make_unique<Session>(*this);
        };
    }
    void open(const std::shared_ptr<FakeWebSocketTask>& task) { delegate->opened(task); }
    void close(const std::shared_ptr<FakeWebSocketTask>& task, int code,
               std::optional<std::string> reason = std::nullopt) {
        delegate->closed(task, code, reason);
    }

    int sessionsMade = 0;
    std::shared_ptr<WebSocketSessionDelegate> delegate;
    std::vector<std::shared_ptr<FakeWebSocketTask>> tasks;

  private:
    struct Session : WebSocketSession {
        explicit Session(FakeWebSockets& owner) : owner(owner) {}
        std::shared_ptr<WebSocketTask> makeTask(const WebSocketRequest&) override {
            return owner.tasks.emplace_back(std::make_shared<FakeWebSocketTask>());
        }
        FakeWebSockets& owner;
    };
};

}  // namespace velmorand::testing
