#pragma once

#include <chrono>
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
};

// The sandbox service. Lives on a thread running a Qt event loop (the QCoreApplication's) and
// serves from it; create, use and destroy it there.
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
    // Whether a handshake handed out `token`.
    bool isIssuedToken(std::string_view token) const;
    // The raw body of the last handshake request received, well-formed or not.
    std::optional<std::string> lastHandshakeBody() const;

    WdaMode wdaMode() const;
    void setWdaMode(WdaMode mode);

  private:
    class Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace velmorand::sandbox
