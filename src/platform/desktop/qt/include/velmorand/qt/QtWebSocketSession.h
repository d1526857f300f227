#pragma once

#include <memory>

#include "velmorand/platform/WebSocket.h"

namespace velmorand {

// WebSocketSession on QWebSocket. Each session owns a network thread on which its sockets live
// and from which every event and completion is delivered; see the source for why.
// TLS is verified, server name included, against the system's CAs plus those of the PEM file
// named by VELMORAND_CA_FILE (read when a task starts).
class QtWebSocketSession : public WebSocketSession {
  public:
    explicit QtWebSocketSession(std::shared_ptr<WebSocketSessionDelegate> delegate);
    ~QtWebSocketSession() override;
    QtWebSocketSession(const QtWebSocketSession&) = delete;
    QtWebSocketSession& operator=(const QtWebSocketSession&) = delete;

    std::shared_ptr<WebSocketTask> makeTask(const WebSocketRequest& request) override;

    static WebSocketSessionFactory factory();

    struct Shared;

  private:
    std::shared_ptr<Shared> shared_;
};

}  // namespace velmorand
