#pragma once

#include <QByteArray>
#include <QObject>
#include <QString>
#include <QTimer>
#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

class QWebSocket;

namespace velmorand::sandbox {

// The relay: one device and any number of viewers, joined by forwarding frames unchanged. The
// device's pongs end here, except as many as answer viewers' pings, which reach the viewers.
// Lives on the thread of the service that hands it sockets.
class SandboxRelay {
  public:
    using TokenCheck = std::function<bool(std::string_view token)>;

    // A zero `pingInterval` sends no pings.
    SandboxRelay(TokenCheck isIssuedToken, std::chrono::milliseconds pingInterval);
    ~SandboxRelay();
    SandboxRelay(const SandboxRelay&) = delete;
    SandboxRelay& operator=(const SandboxRelay&) = delete;

    // Takes over a socket whose upgrade is done; a path ending in "/device" or "/viewer" picks
    // its role, anything else is closed.
    void accept(std::unique_ptr<QWebSocket> socket);
    // Aborts every link without a close frame, as a relay that vanished would.
    void dropAll();

    bool closeDevice(int code, const QString& reason);
    bool sendToDevice(const QByteArray& payload, bool binary);

    bool deviceConnected() const { return device_ != nullptr; }
    std::size_t viewerCount() const { return viewers_.size(); }
    std::size_t deviceConnections() const { return deviceConnections_; }
    std::size_t pongs() const { return pongs_; }
    const std::optional<std::string>& lastDeviceToken() const { return lastDeviceToken_; }
    // The token of the connected device; empty when none is connected.
    std::optional<std::string> deviceToken() const {
        return device_ != nullptr ? std::optional(deviceToken_) : std::nullopt;
    }

  private:
    void acceptDevice(QWebSocket* socket);
    void acceptViewer(QWebSocket* socket);
    void fromViewer(const QByteArray& payload, bool binary);
    void fromDevice(const QByteArray& payload, bool binary);
    void forget(QWebSocket* socket);

    TokenCheck isIssuedToken_;
    // Parent of every socket; the sockets' handlers run in its context.
    QObject context_;
    QTimer pingTimer_;
    QWebSocket* device_ = nullptr;
    std::vector<QWebSocket*> viewers_;
    std::size_t deviceConnections_ = 0;
    std::size_t pongs_ = 0;
    std::optional<std::string> lastDeviceToken_;
    std::string deviceToken_;
    // Viewer pings the device has yet to answer.
    std::size_t viewerPings_ = 0;
};

}  // namespace velmorand::sandbox
