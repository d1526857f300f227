#pragma once

#include <memory>

#include "velmorand/platform/WebSocket.h"

namespace velmorand {

// WebSocketSession on QWebSocket. Every event and completion is delivered, by a queued call, on
// the thread its sockets live on (see SocketThread).
// TLS is verified, server name included, against the system's CAs plus those of the PEM file
// named by VELMORAND_CA_FILE (read when a task starts).
class QtWebSocketSession : public WebSocketSession {
  public:
    enum class SocketThread {
        // A network thread owned by the session: sockets are read even while the creating
        // thread is busy, at the price of a thread hop for every event and call.
        own,
        // The thread that creates the session, which must run a Qt event loop and must also be
        // the one that destroys it. Destroying it from inside one of its own completions is not
        // allowed (nor is it with `own`, where it would deadlock).
        caller,
    };

    QtWebSocketSession(std::shared_ptr<WebSocketSessionDelegate> delegate,
                       SocketThread socketThread);
    ~QtWebSocketSession() override;
    QtWebSocketSession(const QtWebSocketSession&) = delete;
    QtWebSocketSession& operator=(const QtWebSocketSession&) = delete;

    std::shared_ptr<WebSocketTask> makeTask(const WebSocketRequest& request) override;

    static WebSocketSessionFactory factory(SocketThread socketThread);
    // The programs' choice, `caller`; VELMORAND_SOCKET_THREAD=own (read once per process) picks
    // the other, to measure and test both.
    static WebSocketSessionFactory factory();

    struct Shared;

  private:
    std::shared_ptr<Shared> shared_;
};

}  // namespace velmorand
