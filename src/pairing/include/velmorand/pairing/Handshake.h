#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "velmorand/config/HandshakeResult.h"

namespace velmorand {

class HttpClient;

// The agent handshake: one POST that trades an access key for a device token and relay URL.
class Handshake {
  public:
    using Result = HandshakeResult;

    class HandshakeError : public std::runtime_error {
      public:
        enum class Kind { http, network, badURL, decode };

        static HandshakeError http(std::int64_t statusCode, std::string message);
        static HandshakeError network(std::string message);
        static HandshakeError badURL();
        static HandshakeError decode();

        Kind kind() const { return kind_; }
        // Meaningful for `http` only.
        std::int64_t statusCode() const { return statusCode_; }
        // The payload of `http` and `network`; empty otherwise.
        const std::string& message() const { return message_; }
        // The text shown to the user.
        std::string description() const { return what(); }

      private:
        HandshakeError(Kind kind, std::int64_t statusCode, std::string message,
                       const std::string& description);

        Kind kind_;
        std::int64_t statusCode_;
        std::string message_;
    };

    static constexpr std::string_view kPath = "/api/agent-handshake";
    static constexpr std::chrono::milliseconds kTimeout{15'000};

    Handshake() = delete;

    // Blocks until the exchange has ended; never call it on the main thread. Throws
    // HandshakeError, JsonParseError for a 2xx body that is not JSON, and JsonEncodeError for a
    // request body that cannot be encoded.
    static Result exchange(HttpClient& http, std::string_view appURL, std::string_view accessKey,
                           const std::optional<std::string>& preferredRegion, bool webrtc);

  private:
    // The endpoint for `appURL`: slashes trimmed from both ends, a relay-style ws(s) scheme
    // turned into http(s). Absent when the result is not a URL.
    static std::optional<std::string> endpoint(std::string_view appURL);
    // The JSON request body.
    static std::string requestBody(std::string_view accessKey,
                                   const std::optional<std::string>& preferredRegion, bool webrtc);
};

}  // namespace velmorand
