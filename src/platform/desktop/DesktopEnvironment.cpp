#include "velmorand/desktop/DesktopEnvironment.h"

namespace velmorand {

DesktopEnvironment::DesktopEnvironment(const DesktopLocations& locations)
    : root(DataRoot::resolve(locations.dataDir)),
      bundle(DesktopBundle::resolveDirectory(locations.bundleDir, bundleBesideProgram())),
      settings(root),
      keychain(root, bundle.resource("embedded", "mobileprovision")),
      groupContainers(root) {}

std::filesystem::path DesktopEnvironment::bundleBesideProgram() {
    std::error_code error;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (error) {
        return VELMORAND_BUNDLE_PATH;
    }
    return program.parent_path().parent_path() / VELMORAND_BUNDLE_PATH;
}

}  // namespace velmorand
