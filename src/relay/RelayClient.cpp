#include "velmorand/relay/RelayClient.h"

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <variant>

#include "velmorand/platform/Text.h"
#include "velmorand/platform/UrlComponents.h"

namespace velmorand {
namespace {

constexpr MainQueue::Duration kOptimisticOpen{0.35};
constexpr int kAuthRejectedCloseCode = 4401;

std::function<double()> systemRandom() {
    auto generator = std::make_shared<std::mt19937_64>(std::random_device{}());
    return [generator] {
        const double value = std::uniform_real_distribution<double>(0, 1)(*generator);
        // Some library versions can round up to the bound itself.
        return value < 1 ? value : std::nextafter(1.0, 0.0);
    };
}

// Runs on the session's thread: logs the first failed send of a link if the client still exists,
// without owning it, after running `done`.
WebSocketTask::SendCompletion sendCompletion(std::weak_ptr<RelayClient> client, Log& log,
                                             std::shared_ptr<std::atomic<bool>> linkFailed,
                                             std::function<void()> done) {
    return [client = std::move(client), &log, linkFailed = std::move(linkFailed),
            done = std::move(done)](std::optional<WebSocketError> error) {
        if (done) {
            done();
        }
        if (error && !client.expired() && !linkFailed->exchange(true)) {
            log.write("[relay-client] send error: " + error->description);
        }
    };
}

std::string oneDecimal(double value) {
    // Room for the largest finite double written out in full: a sign, 309 digits, the point
    // and one decimal.
    char buffer[std::numeric_limits<double>::max_exponent10 + 5];
    const auto result =
        std::to_chars(buffer, buffer + sizeof buffer, value, std::chars_format::fixed, 1);
    return std::string(buffer, result.ptr);
}

}  // namespace

// Session events arrive on the session's thread; they touch the client only on the main queue.
class RelayClient::SessionDelegate : public WebSocketSessionDelegate {
  public:
    SessionDelegate(std::weak_ptr<RelayClient> client, MainQueue& mainQueue)
        : client_(std::move(client)), mainQueue_(mainQueue) {}

    void opened(const std::shared_ptr<WebSocketTask>& task) override {
        mainQueue_.post([client = client_, task] {
            if (auto self = client.lock()) {
                self->taskOpened(task);
            }
        });
    }

    void closed(const std::shared_ptr<WebSocketTask>& task, int closeCode,
                const std::optional<std::string>& reason) override {
        mainQueue_.post([client = client_, task, closeCode, reason] {
            if (auto self = client.lock()) {
                self->taskClosed(task, closeCode, reason);
            }
        });
    }

  private:
    std::weak_ptr<RelayClient> client_;
    MainQueue& mainQueue_;
};

std::shared_ptr<RelayClient> RelayClient::make(std::string relayBase, std::string deviceToken,
                                               Services services) {
    return std::shared_ptr<RelayClient>(
        new RelayClient(std::move(relayBase), std::move(deviceToken), std::move(services)));
}

RelayClient::RelayClient(std::string relayBase, std::string deviceToken, Services services)
    : relayBase_(std::move(relayBase)),
      deviceToken_(std::move(deviceToken)),
      mainQueue_(services.mainQueue),
      log_(services.log),
      makeSession_(std::move(services.makeSession)),
      random_(services.random ? std::move(services.random) : systemRandom()),
      outbound_(RelayOutbound<Link>::make()),
      reconnectDelay_(policy_.minDelay) {}

RelayClient::~RelayClient() = default;

void RelayClient::setReconnectPolicy(const ReconnectPolicy& policy) {
    policy_ = policy;
    reconnectDelay_ = policy.minDelay;
}

void RelayClient::setRequestTimeout(std::chrono::milliseconds timeout) {
    requestTimeout_ = timeout;
}

WebSocketSession& RelayClient::session() {
    if (!session_) {
        session_ = makeSession_(std::make_shared<SessionDelegate>(weak_from_this(), mainQueue_));
    }
    return *session_;
}

void RelayClient::connect() {
    if (pendingReconnect_) {
        pendingReconnect_->cancel();
        pendingReconnect_.reset();
    }
    opened_ = false;
    connectionProven_ = false;

    std::string url = relayBase_ + "/device";
    const auto parsed = UrlComponents::parse(url);
    if (!parsed || parsed->scheme.empty()) {
        log("bad relay url");
        scheduleReconnect();
        return;
    }
    WebSocketRequest request{std::move(url), {{"x-device-token", deviceToken_}}, requestTimeout_};
    // The previous task is let go, not cancelled: its late events are ignored by identity.
    Socket task = session().makeTask(request);
    task_ = task;
    outbound_->replace(Link{task, std::make_shared<std::atomic<bool>>(false)});
    task->resume();
    armReceive(task);

    mainQueue_.postAfter(
        kOptimisticOpen, [client = weak_from_this(), attempt = std::weak_ptr<WebSocketTask>(task)] {
            auto self = client.lock();
            if (!self || !self->task_ || attempt.lock() != self->task_ || self->opened_) {
                return;
            }
            self->opened_ = true;
            if (self->onOpen) {
                self->onOpen();
            }
        });
}

void RelayClient::armReceive(const Socket& task) {
    task->receive([client = weak_from_this(), from = std::weak_ptr<WebSocketTask>(task),
                   &mainQueue = mainQueue_](WebSocketTask::ReceiveResult result) {
        mainQueue.post([client, from, result = std::move(result)]() mutable {
            if (auto self = client.lock()) {
                self->received(from, std::move(result));
            }
        });
    });
}

void RelayClient::received(const std::weak_ptr<WebSocketTask>& from,
                           WebSocketTask::ReceiveResult result) {
    const Socket task = from.lock();
    const auto current = [&] { return task && task == task_; };
    if (const auto* error = std::get_if<WebSocketError>(&result)) {
        if (current()) {
            log("recv error: " + error->description + " — reconnecting");
            scheduleReconnect();
        }
        return;
    }
    if (!current()) {
        return;
    }
    markOpened(true);
    if (!current()) {
        return;
    }
    const auto& message = std::get<WebSocketMessage>(result);
    if (message.kind == WebSocketMessage::Kind::text || isValidUtf8(message.payload)) {
        handleText(message.payload);
    }
    if (current()) {
        armReceive(task);
    }
}

void RelayClient::taskOpened(const Socket& task) {
    if (task && task == task_) {
        markOpened(true);
    }
}

void RelayClient::taskClosed(const Socket& task, int closeCode,
                             const std::optional<std::string>& reason) {
    if (!task || task != task_) {
        return;
    }
    const std::string reasonText = reason && isValidUtf8(*reason) ? *reason : std::string();
    log("closed code=" + std::to_string(closeCode) + " " + reasonText);
    if (closeCode == kAuthRejectedCloseCode && onAuthRejected) {
        onAuthRejected();
    }
    scheduleReconnect();
}

void RelayClient::markOpened(bool proven) {
    if (proven && !connectionProven_) {
        connectionProven_ = true;
        reconnectDelay_ = policy_.minDelay;
    }
    if (!opened_) {
        opened_ = true;
        if (onOpen) {
            onOpen();
        }
    }
}

void RelayClient::scheduleReconnect() {
    if (pendingReconnect_) {
        return;
    }
    const bool hadTask = task_ != nullptr;
    if (task_) {
        task_->cancel();
        task_.reset();
    }
    outbound_->replace(std::nullopt);
    opened_ = false;

    if (!(policy_.jitter > 0) || !std::isfinite(policy_.jitter)) {
        std::abort();
    }
    const double delay = reconnectDelay_ + random_() * policy_.jitter;
    reconnectDelay_ = std::min(policy_.maxDelay, reconnectDelay_ * 2);
    log("reconnecting in " + oneDecimal(delay) + "s");

    pendingReconnect_ =
        mainQueue_.postAfter(MainQueue::Duration(delay), [client = weak_from_this()] {
            if (auto self = client.lock()) {
                self->pendingReconnect_.reset();
                self->connect();
            }
        });
    if (hadTask && onLinkLost) {
        onLinkLost();
    }
}

void RelayClient::transmit(std::optional<std::string> text, std::optional<Bytes> binary) {
    outbound_->send(
        text, binary,
        [client = weak_from_this(), &log = log_](
            const Link& link, const std::optional<std::string>& text,
            const std::optional<Bytes>& binary, const RelayOutbound<Link>::Release& release) {
            WebSocketMessage message;
            if (text) {
                message = {WebSocketMessage::Kind::text, *text};
            } else {
                message.kind = WebSocketMessage::Kind::binary;
                if (binary) {
                    message.payload.assign(binary->begin(), binary->end());
                }
            }
            link.task->send(std::move(message), sendCompletion(client, log, link.sendFailed, {}));
            // Replies are tiny and never held back: released as soon as the send has started.
            release();
        });
}

RelayClient::FrameOutcome RelayClient::sendFrame(FrameHeader header,
                                                 std::span<const std::uint8_t> payload,
                                                 std::int64_t budget) {
    const auto size = static_cast<std::int64_t>(FrameHeader::kSize + payload.size());
    return outbound_->sendWithin(
        budget, size,
        [&](const Link& link, std::uint32_t sequence, RelayOutbound<Link>::Release release) {
            header.sequence = sequence;
            WebSocketMessage message{WebSocketMessage::Kind::binary,
                                     std::string(static_cast<std::size_t>(size), '\0')};
            auto* bytes = reinterpret_cast<std::uint8_t*>(message.payload.data());
            header.write(std::span<std::uint8_t, FrameHeader::kSize>(bytes, FrameHeader::kSize));
            std::copy(payload.begin(), payload.end(), bytes + FrameHeader::kSize);
            // The bytes stay reserved until the socket has written them (or failed to), so
            // that a relay reading slowly holds back new frames instead of queueing them.
            link.task->send(
                std::move(message),
                sendCompletion(weak_from_this(), log_, link.sendFailed, std::move(release)));
        });
}

std::int64_t RelayClient::frameBytesInFlight() const {
    return outbound_->bytes();
}

void RelayClient::log(std::string_view message) {
    std::string line = "[relay-client] ";
    line += message;
    log_.write(line);
}

}  // namespace velmorand
