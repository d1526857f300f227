#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace velmorand {

class Bundle;

// Finds the screen-broadcast upload extension among the application's embedded extensions.
class BroadcastExtension {
  public:
    static constexpr std::string_view kExtensionPoint = "com.apple.broadcast-services-upload";

    BroadcastExtension() = delete;

    // The bundle identifier of the first upload extension in name order; absent when there is
    // none, or when the first one has no identifier. Looked up afresh on every call.
    static std::optional<std::string> bundleIdentifier(const Bundle& bundle);

    // The program of the extension bundleIdentifier finds: `<X>.appex/<CFBundleExecutable>`.
    // Absent when there is no such extension, or its Info.plist names no plain file name.
    static std::optional<std::filesystem::path> executable(const Bundle& bundle);
};

}  // namespace velmorand
