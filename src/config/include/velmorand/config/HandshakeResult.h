#pragma once

#include <string>

namespace velmorand {

// The answer of the agent handshake. Decoded by the pairing layer (as Handshake::Result) and
// stored by SharedConfig, which is why it lives at this level.
struct HandshakeResult {
    std::string deviceToken;
    std::string relayWsUrl;
    std::string deviceId;
    std::string deviceName = "iPhone";
    bool webrtcEnabled = false;
};

}  // namespace velmorand
