#pragma once

#include <filesystem>
#include <optional>

#include "velmorand/desktop/DataRoot.h"
#include "velmorand/platform/Bundle.h"

namespace velmorand {

// The installed bundle as a directory: resources beside Info.plist, plug-ins in PlugIns/.
class DesktopBundle : public Bundle {
  public:
    explicit DesktopBundle(std::filesystem::path directory) : directory_(std::move(directory)) {}

    // `bundleDir` (from --bundle-dir) when given, else $VELMORAND_BUNDLE_DIR, else the
    // build's default.
    static std::filesystem::path resolveDirectory(
        const std::optional<std::filesystem::path>& bundleDir,
        const std::filesystem::path& builtInDefault,
        const EnvironmentLookup& environment = processEnvironment());

    std::filesystem::path installDirectory() const override { return directory_; }
    std::optional<std::filesystem::path> resource(std::string_view name,
                                                  std::string_view extension) const override;
    // CFBundleIdentifier of Info.plist (XML or binary), when it is a string.
    std::optional<std::string> bundleIdentifier() const override;
    std::optional<std::filesystem::path> plugInsDirectory() const override;

  private:
    std::filesystem::path directory_;
};

// The application group's container under the data root, created (0700) on first request.
class DesktopGroupContainers : public GroupContainers {
  public:
    explicit DesktopGroupContainers(DataRoot root) : root_(std::move(root)) {}

    // Absent for any group but DataRoot::kGroupName, and when the directory cannot be made.
    std::optional<std::filesystem::path> containerDirectory(
        std::string_view groupName) const override;

  private:
    DataRoot root_;
};

}  // namespace velmorand
