#pragma once

#include <filesystem>
#include <fstream>

#include "FakeBundle.h"
#include "InMemoryKeychain.h"
#include "InMemorySettings.h"
#include "TempDir.h"
#include "velmorand/config/AppGroup.h"
#include "velmorand/config/SharedConfig.h"

namespace velmorand::testing {

// A provisioning profile granting the shared group; write it before the group is first asked.
inline void grantSharedGroup(const std::filesystem::path& bundleRoot) {
    std::ofstream(bundleRoot / "embedded.mobileprovision", std::ios::binary)
        << "\x30\x82signature<?xml version=\"1.0\" encoding=\"UTF-8\"?>"
           "<plist version=\"1.0\"><dict><key>Entitlements</key><dict>"
           "<key>com.apple.security.application-groups</key><array>"
           "<string>group.co.velmorand.connect</string></array></dict></dict></plist>\x01\x02";
}

// A real SharedConfig over in-memory stores.
struct ConfigFixture {
    TempDir dir;
    FakeBundle bundle{dir.path()};
    InMemorySettingsStores stores;
    InMemoryKeychain keychain;
    AppGroup appGroup{bundle};
    SharedConfig config{stores, keychain, appGroup};
};

}  // namespace velmorand::testing
