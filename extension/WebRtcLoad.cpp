#include "velmorand/extension/WebRtcLoad.h"

#include "velmorand/pairing/WebRtcCapability.h"
#include "velmorand/platform/SettingsStore.h"

namespace velmorand::extension {

std::optional<std::string> WebRtcLoad::attempt(
    SettingsStore& shared, const std::function<std::optional<std::string>()>& load) {
    const auto marker = WebRtcCapability::kLoadPendingKey;
    if (shared.boolean(marker)) {
        return "an earlier broadcast stopped while it loaded the WebRTC plug-ins; pair the device "
               "again to try peer-to-peer again";
    }
    shared.setBool(marker, true);
    shared.synchronize();
    auto missing = load();
    shared.setBool(marker, false);
    shared.synchronize();
    return missing;
}

}  // namespace velmorand::extension
