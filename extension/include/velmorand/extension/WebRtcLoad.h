#pragma once

#include <functional>
#include <optional>
#include <string>

namespace velmorand {
class SettingsStore;
}

namespace velmorand::extension {

// Loads the WebRTC plug-ins under a marker in the shared settings store: set before, cleared
// after. A broadcast that crashed while loading them leaves the marker, and later broadcasts then
// leave them alone until the next pairing clears it and so tries again.
struct WebRtcLoad {
    // Why peer-to-peer is off for this broadcast; absent when `load` succeeded. `load` says what
    // is missing, or nothing.
    static std::optional<std::string> attempt(
        SettingsStore& shared, const std::function<std::optional<std::string>()>& load);
};

}  // namespace velmorand::extension
