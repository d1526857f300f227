#include "velmorand/desktop/DesktopBundle.h"

#include <string>

#include "velmorand/desktop/FileWrite.h"
#include "PlistHandle.h"
#include "velmorand/platform/Files.h"

namespace velmorand {

std::filesystem::path DesktopBundle::resolveDirectory(
    const std::optional<std::filesystem::path>& bundleDir,
    const std::filesystem::path& builtInDefault, const EnvironmentLookup& environment) {
    if (bundleDir && !bundleDir->empty()) {
        return *bundleDir;
    }
    if (auto fromEnvironment = environment("VELMORAND_BUNDLE_DIR");
        fromEnvironment && !fromEnvironment->empty()) {
        return *fromEnvironment;
    }
    return builtInDefault;
}

std::optional<std::filesystem::path> DesktopBundle::resource(std::string_view name,
                                                             std::string_view extension) const {
    auto path = directory_ / (std::string(name) + "." + std::string(extension));
    std::error_code error;
    if (!std::filesystem::exists(path, error)) {
        return std::nullopt;
    }
    return path;
}

std::optional<std::string> DesktopBundle::bundleIdentifier() const {
    const auto bytes = readWholeFile(directory_ / "Info.plist");
    if (!bytes) {
        return std::nullopt;
    }
    const auto root = plist::PlistHandle::parse(
        std::span(reinterpret_cast<const std::uint8_t*>(bytes->data()), bytes->size()));
    if (!plist::isType(root.get(), PLIST_DICT)) {
        return std::nullopt;
    }
    return plist::stringValue(plist_dict_get_item(root.get(), "CFBundleIdentifier"));
}

std::optional<std::filesystem::path> DesktopBundle::plugInsDirectory() const {
    return directory_ / "PlugIns";
}

std::optional<std::filesystem::path> DesktopGroupContainers::containerDirectory(
    std::string_view groupName) const {
    if (groupName != DataRoot::kGroupName) {
        return std::nullopt;
    }
    auto directory = root_.groupContainerDirectory();
    if (!files::makeDirectories(directory)) {
        return std::nullopt;
    }
    return directory;
}

}  // namespace velmorand
