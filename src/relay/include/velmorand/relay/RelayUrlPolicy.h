#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velmorand {

// Which relay URLs the device connects to. A plain ws:// link carries the device token and every
// viewer command unencrypted, so whoever sits on the path could take the device over: it is
// allowed only when it stays on this computer (a loopback host). A user name or password in the
// URL would travel and be shown with it, so it is refused whatever the scheme.
class RelayUrlPolicy {
  public:
    RelayUrlPolicy() = delete;

    // Why the device will not connect to the relay at `url`, for a line the user reads; absent
    // when it will (or when the URL is for the link itself to judge).
    static std::optional<std::string> refusal(std::string_view url);
    // What is wrong with `url` as a relay URL the broadcast will use, in a line for the user:
    // not a ws:// or wss:// URL with a host, or refused as above. Absent when nothing is.
    static std::optional<std::string> problem(std::string_view url);
    // "localhost", 127.0.0.0/8 and ::1.
    static bool isLoopbackHost(std::string_view host);
};

}  // namespace velmorand
