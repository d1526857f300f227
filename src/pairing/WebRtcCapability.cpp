#include "velmorand/pairing/WebRtcCapability.h"

#include "velmorand/config/SharedConfig.h"
#include "velmorand/platform/ClassLookup.h"
#include "velmorand/platform/Log.h"

namespace velmorand {

bool WebRtcCapability::isAvailable() const {
    if (!classLookup_.classExists(kClassName)) {
        return false;
    }
    const auto groupStore = config_.groupStore();
    SettingsStore& store = groupStore ? *groupStore : config_.standardStore();
    if (store.boolean(kLoadPendingKey)) {
        store.setBool(kLoadPendingKey, false);
        store.synchronize();
        log_.write("[velmorand] cleared stale WebRTC load-pending — retrying P2P");
    }
    return true;
}

}  // namespace velmorand
