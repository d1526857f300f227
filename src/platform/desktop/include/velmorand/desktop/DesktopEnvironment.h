#pragma once

#include <filesystem>
#include <optional>

#include "velmorand/desktop/DataRoot.h"
#include "velmorand/desktop/DesktopBundle.h"
#include "velmorand/desktop/DesktopKeychain.h"
#include "velmorand/desktop/DesktopSettingsStores.h"
#include "velmorand/gst/GstClassLookup.h"

namespace velmorand {

// Where a desktop program was told to find its data and its bundle.
struct DesktopLocations {
    std::optional<std::filesystem::path> dataDir;
    std::optional<std::filesystem::path> bundleDir;
};

// The platform services every desktop program (app, CLI, upload extension) builds the same way,
// with no event loop: the bundle, the settings stores, the keychain, the group container and the
// class lookup.
class DesktopEnvironment {
  public:
    explicit DesktopEnvironment(const DesktopLocations& locations);

    // Installed or built, the bundle sits at ../lib/velmorand/bundle from the program.
    static std::filesystem::path bundleBesideProgram();

    DataRoot root;
    DesktopBundle bundle;
    DesktopSettingsStores settings;
    DesktopKeychain keychain;
    DesktopGroupContainers groupContainers;
    GstClassLookup classLookup;
};

}  // namespace velmorand
