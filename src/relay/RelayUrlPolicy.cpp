#include "velmorand/relay/RelayUrlPolicy.h"

#include <algorithm>
#include <cctype>

#include "velmorand/platform/UrlComponents.h"

namespace velmorand {
namespace {

std::string lowercase(std::string_view text) {
    std::string out(text);
    std::transform(out.begin(), out.end(), out.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return out;
}

// Four dot-separated decimal numbers of at most 255, the first 127.
bool isLoopbackIpv4(std::string_view host) {
    int parts = 0;
    while (true) {
        const auto dot = host.find('.');
        const auto part = host.substr(0, dot);
        if (part.empty() || part.size() > 3 ||
            !std::all_of(part.begin(), part.end(), [](char c) { return c >= '0' && c <= '9'; }) ||
            std::stoi(std::string(part)) > 255 || (parts == 0 && part != "127")) {
            return false;
        }
        ++parts;
        if (dot == std::string_view::npos) {
            return parts == 4;
        }
        host.remove_prefix(dot + 1);
    }
}

}  // namespace

bool RelayUrlPolicy::isLoopbackHost(std::string_view host) {
    const std::string name = lowercase(host);
    return name == "localhost" || name == "::1" || name == "0:0:0:0:0:0:0:1" ||
           isLoopbackIpv4(name);
}

std::optional<std::string> RelayUrlPolicy::refusal(std::string_view url) {
    const auto parts = UrlComponents::parse(url);
    if (!parts) {
        return std::nullopt;
    }
    if (parts->userInfo) {
        return "a relay URL may not carry a user name or password";
    }
    if (lowercase(parts->scheme) == "ws" && !isLoopbackHost(parts->host)) {
        return "ws:// would send the device token and every command unencrypted; it is allowed "
               "only to this computer (localhost) — use a wss:// relay URL";
    }
    return std::nullopt;
}

std::optional<std::string> RelayUrlPolicy::problem(std::string_view url) {
    const auto parts = UrlComponents::parse(url);
    const std::string scheme = parts ? lowercase(parts->scheme) : std::string();
    if ((scheme != "ws" && scheme != "wss") || parts->host.empty()) {
        return "not a ws:// or wss:// URL: the broadcast cannot connect with it";
    }
    if (auto refused = refusal(url)) {
        return "the broadcast will refuse it: " + *refused;
    }
    return std::nullopt;
}

}  // namespace velmorand
