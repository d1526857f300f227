#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace velmorand::sandbox {

// How the touch-control endpoint behaves.
enum class WdaMode {
    normal,    // idle, then starting, then active after a start
    error,     // always reports a failed start
    disabled,  // reports the touch server as off
    slow,      // answers status checks only after `slowDelay`
};

std::optional<WdaMode> parseWdaMode(std::string_view text);
std::string_view wdaModeName(WdaMode mode);

struct SandboxOptions {
    static constexpr std::string_view kDemoKey = "demo-key-1234";

    std::string host = "127.0.0.1";
    // 0 picks a free port.
    std::uint16_t port = 0;
    std::uint16_t wdaPort = 0;
    // Empty: the demo key alone.
    std::vector<std::string> accessKeys;
    // Both set: the service speaks HTTPS, and hands out wss:// relay URLs.
    std::optional<std::string> tlsCertificateFile;
    std::optional<std::string> tlsKeyFile;
    WdaMode wdaMode = WdaMode::normal;
    // How long a started touch server reports "starting" before "active".
    std::chrono::milliseconds wdaStartupTime{1000};
    std::chrono::milliseconds slowDelay{40'000};
    // How often the relay sends {"type":"ping"} to the connected device; zero sends none.
    std::chrono::milliseconds relayPingInterval{5'000};
    // Peer-to-peer video: a device that asks for it is told it may, and the viewer page offers.
    bool webrtc = false;
};

// The sandbox service. Lives on a thread running a Qt event loop (the QCoreApplication's) and
// serves from it; create, use and destroy it there.
//
// The relay shares the service's port: QHttpServer (built with WebSockets) hands the upgrades of
// "/relay/device" and "/relay/viewer" to the relay, so the handshake's "relayWsUrl"
// ("<ws|wss>://host:port/relay") needs no second port and speaks TLS exactly when the service
// does, with the same certificate. Devices connect to relayWsUrl + "/device" with an
// issued token in "x-device-token" (any other is closed with 4401 "unauthorized"); viewers to
// relayWsUrl + "/viewer?token=" + viewerToken(), from no web page or from the sandbox's own (a
// missing or wrong token is closed with 4401, another page's socket with 4403). Viewer messages go
// to the device unchanged, and device text to every viewer; the device's {"type":"pong"} answers
// end at the relay, except those answering viewers' pings. The device's binary messages are frames
// (velmorand/relay/ FrameHeader.h): one without a valid header, or over 16 MiB, is dropped; the
// others go to each viewer that has had a key frame since it joined or last fell behind, and has
// room under the byte budget (velmorand/stream/FrameBudget.h). The relay tells the device
// {"type":"need_stream"} when the first viewer joins (or the device connects to waiting viewers),
// {"type":"request_idr"} when another joins or one falls behind (at most once a second), and
// {"type":"stream_control","streaming":false} when the last viewer leaves.
//
// "/" serves a viewer page (plain HTML and JavaScript) that drives the relay as a dashboard
// viewer; "/admin/relay" tells it, as JSON, whether and which device is connected, and counts
// frames ("frames": received, rejected, forwarded, missed).
class Sandbox {
  public:
    explicit Sandbox(SandboxOptions options);
    ~Sandbox();
    Sandbox(const Sandbox&) = delete;
    Sandbox& operator=(const Sandbox&) = delete;

    // Starts listening on both ports. On failure returns false and says why in `error`.
    bool start(std::string* error);

    // "http://host:port" or "https://host:port", with the real port once started.
    std::string baseUrl() const;
    // The stand-in automation server, always plain HTTP.
    std::string wdaBaseUrl() const;
    std::uint16_t port() const;
    std::uint16_t wdaPort() const;

    const std::vector<std::string>& accessKeys() const;
    // This run's viewer token: viewers join the relay with it as the "token" query item.
    const std::string& viewerToken() const;
    // Whether a handshake handed out `token`.
    bool isIssuedToken(std::string_view token) const;
    // The raw body of the last handshake request received, well-formed or not.
    std::optional<std::string> lastHandshakeBody() const;

    WdaMode wdaMode() const;
    void setWdaMode(WdaMode mode);

    // baseUrl() with ws or wss and the "/relay" path, as the handshake hands it out.
    std::string relayWsUrl() const;
    bool deviceConnected() const;
    std::size_t viewerCount() const;
    // Device connections accepted so far.
    std::size_t deviceConnections() const;
    // {"type":"pong"} frames the device has sent.
    std::size_t devicePongs() const;
    // The "x-device-token" of the latest device connection, accepted or not.
    std::optional<std::string> lastDeviceToken() const;
    // Closes the device's link with `code`; false when no device is connected.
    bool closeDevice(int code, std::string_view reason);
    // Sends one frame to the device as the relay itself; false when no device is connected.
    bool sendToDevice(std::string_view payload, bool binary = false);

    // The service goes away: its port stops listening and every relay link is cut without a
    // close frame. resume() listens on the same port again.
    void suspend();
    bool resume(std::string* error);

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace velmorand::sandbox
