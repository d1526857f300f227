#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <variant>
#include <vector>

namespace velmorand {

struct WebSocketRequest {
    std::string url;
    std::vector<std::pair<std::string, std::string>> headers;
    std::chrono::milliseconds timeout{60'000};
};

struct WebSocketMessage {
    enum class Kind { text, binary };

    Kind kind = Kind::text;
    // UTF-8 for text; arbitrary bytes for binary.
    std::string payload;
};

// Why a receive or send did not happen, as the platform describes it.
struct WebSocketError {
    std::string description;
};

// One connection attempt. Tasks are compared by identity (pointer), never by value; the session
// keeps a task alive while it still has events or completions to deliver for it.
class WebSocketTask {
  public:
    // Absent on success.
    using SendCompletion = std::function<void(std::optional<WebSocketError>)>;
    using ReceiveResult = std::variant<WebSocketMessage, WebSocketError>;
    using ReceiveCompletion = std::function<void(ReceiveResult)>;

    virtual ~WebSocketTask() = default;

    // Starts connecting; a task does nothing before.
    virtual void resume() = 0;
    // Closes the connection; pending receives then complete with an error.
    virtual void cancel() = 0;
    // Completions run on the session's thread (which may be the main thread), always by a later
    // queued call, never inside the call that started the work. A send completes once its bytes
    // have been written to the connection, or with the error that kept them from it.
    virtual void send(WebSocketMessage message, SendCompletion completion) = 0;
    // Delivers exactly one message (or the error that ended the connection) per call; the caller
    // calls again for the next one.
    virtual void receive(ReceiveCompletion completion) = 0;
};

// Receives the session's events, on the session's thread (which may be the main thread).
class WebSocketSessionDelegate {
  public:
    virtual ~WebSocketSessionDelegate() = default;

    virtual void opened(const std::shared_ptr<WebSocketTask>& task) = 0;
    // `reason` holds the close frame's reason bytes when it carried any.
    virtual void closed(const std::shared_ptr<WebSocketTask>& task, int closeCode,
                        const std::optional<std::string>& reason) = 0;
};

// What a peer can make a connection hold, in every implementation. Past either bound the
// connection ends with an error (the peer is sent close code 1009 for an oversized message), which
// pending and later receives report, as for any lost link.
struct WebSocketLimits {
    // The largest message received: a 64 MiB file in base64, with room for the JSON around it.
    static constexpr std::uint64_t kMaxIncomingMessageBytes = 96ULL * 1024 * 1024;
    // Messages received and not yet taken by a receive, by count (and by bytes, the largest
    // message's).
    static constexpr std::size_t kMaxWaitingMessages = 10'000;
    // Bytes handed to the connection and not yet written.
    static constexpr std::uint64_t kMaxUnwrittenBytes = 32ULL * 1024 * 1024;
    // A connection with bytes waiting that has written none of them for this long is stuck.
    static constexpr std::chrono::seconds kLongestWriteStall{10};
};

// Makes WebSocket tasks that all report to one delegate. Implementations send no WebSocket-level
// pings: liveness is the peer's business. Destroying the session cancels its tasks and delivers
// no further events.
class WebSocketSession {
  public:
    virtual ~WebSocketSession() = default;

    virtual std::shared_ptr<WebSocketTask> makeTask(const WebSocketRequest& request) = 0;
};

// Creates a session reporting to `delegate`, which the session keeps for its whole life.
using WebSocketSessionFactory = std::function<std::unique_ptr<WebSocketSession>(
    std::shared_ptr<WebSocketSessionDelegate> delegate)>;

}  // namespace velmorand
