#include "velmorand/desktop/DataRoot.h"

#include <fcntl.h>
#include <pwd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace velmorand {
namespace {

std::optional<std::string> nonEmpty(std::optional<std::string> value) {
    if (value && value->empty()) {
        return std::nullopt;
    }
    return value;
}

std::filesystem::path homeDirectory(const EnvironmentLookup& environment) {
    if (auto home = nonEmpty(environment("HOME"))) {
        return *home;
    }
    // getpwuid_r needs a caller-sized buffer; 16 KiB covers any sane passwd entry.
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (getpwuid_r(getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_dir != nullptr) {
        return found->pw_dir;
    }
    return std::filesystem::current_path();
}

}  // namespace

EnvironmentLookup processEnvironment() {
    return [](std::string_view name) -> std::optional<std::string> {
        const char* value = std::getenv(std::string(name).c_str());
        if (value == nullptr) {
            return std::nullopt;
        }
        return std::string(value);
    };
}

DataRoot DataRoot::resolve(const std::optional<std::filesystem::path>& dataDir,
                           const EnvironmentLookup& environment) {
    if (dataDir && !dataDir->empty()) {
        return DataRoot(*dataDir);
    }
    if (auto fromEnvironment = nonEmpty(environment("VELMORAND_DATA_DIR"))) {
        return DataRoot(*fromEnvironment);
    }
    // Relative values are invalid for XDG variables and are ignored.
    if (auto xdg = nonEmpty(environment("XDG_DATA_HOME"));
        xdg && std::filesystem::path(*xdg).is_absolute()) {
        return DataRoot(std::filesystem::path(*xdg) / "velmorand");
    }
    return DataRoot(homeDirectory(environment) / ".local" / "share" / "velmorand");
}

std::filesystem::path DataRoot::standardStoreFile() const {
    return root_ / "Preferences" / (std::string(kStandardStoreName) + ".plist");
}

std::filesystem::path DataRoot::groupContainerDirectory() const {
    return root_ / "Group Containers" / std::string(kGroupName);
}

std::filesystem::path DataRoot::groupStoreFile() const {
    return groupContainerDirectory() / "Library" / "Preferences" /
           (std::string(kGroupName) + ".plist");
}

std::filesystem::path DataRoot::keychainFile() const {
    return root_ / "Keychain" / "keychain.plist";
}

std::optional<std::string> DataRoot::unwritable() const {
    for (const auto& file : {standardStoreFile(), groupStoreFile(), keychainFile()}) {
        const auto directory = file.parent_path();
        std::error_code error;
        std::filesystem::create_directories(directory, error);
        const auto probe = directory / (".write-check-" + std::to_string(::getpid()));
        const int descriptor =
            error ? -1 : ::open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
        if (descriptor < 0) {
            const std::string why = error ? error.message() : std::strerror(errno);
            return "cannot write " + directory.string() + ": " + why;
        }
        ::close(descriptor);
        ::unlink(probe.c_str());
    }
    return std::nullopt;
}

}  // namespace velmorand
