#pragma once

#include "FakeBundle.h"
#include "InMemoryKeychain.h"
#include "InMemorySettings.h"
#include "TempDir.h"
#include "velmorand/config/AppGroup.h"
#include "velmorand/config/SharedConfig.h"

namespace velmorand::testing {

// A real SharedConfig over in-memory stores, in a bundle without a provisioning profile (so only
// the standard store and the keychain are used) unless a test writes one into `dir` first.
// Meant to be inherited, so that tests name its parts directly.
struct InMemoryConfig {
    TempDir dir;
    FakeBundle bundle{dir.path()};
    InMemorySettingsStores stores;
    InMemoryKeychain keychain;
    AppGroup appGroup{bundle};
    SharedConfig config{stores, keychain, appGroup};
};

}  // namespace velmorand::testing
