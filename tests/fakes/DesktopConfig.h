#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "velmorand/config/AppGroup.h"
#include "velmorand/config/SharedConfig.h"
#include "velmorand/desktop/DataRoot.h"
#include "velmorand/desktop/DesktopBundle.h"
#include "velmorand/desktop/DesktopSettingsStores.h"
#include "velmorand/desktop/PlistKeychain.h"

namespace velmorand::testing {

// The configuration as the programs hold it: the desktop stores under a data root, with the
// bundle's provisioning profile. Header-only, for the suites that link the desktop platform.
struct DesktopConfig {
    DesktopConfig(const std::filesystem::path& dataDir, const std::filesystem::path& bundleDir)
        : root(dataDir),
          bundle(bundleDir),
          stores(root),
          keychain(root.keychainFile(), bundle.resource("embedded", "mobileprovision")) {}

    // What the upload extension has logged so far.
    std::string extensionLog() const {
        std::ostringstream text;
        text << std::ifstream(root.groupContainerDirectory() / "extension.log", std::ios::binary)
                    .rdbuf();
        return text.str();
    }

    DataRoot root;
    DesktopBundle bundle;
    DesktopSettingsStores stores;
    PlistKeychain keychain;
    AppGroup group{bundle};
    SharedConfig config{stores, keychain, group};
};

}  // namespace velmorand::testing
