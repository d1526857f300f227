#pragma once

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace velmorand {

// Reads one environment variable; absent when unset.
using EnvironmentLookup = std::function<std::optional<std::string>(std::string_view name)>;

// The process environment.
EnvironmentLookup processEnvironment();

// Where this installation keeps its settings stores, group container and keychain.
class DataRoot {
  public:
    static constexpr std::string_view kGroupName = "group.co.velmorand.connect";
    static constexpr std::string_view kStandardStoreName = "co.velmorand.connect";

    explicit DataRoot(std::filesystem::path root) : root_(std::move(root)) {}

    // `dataDir` (from --data-dir) when given, else $VELMORAND_DATA_DIR, else
    // $XDG_DATA_HOME/velmorand, else ~/.local/share/velmorand.
    static DataRoot resolve(const std::optional<std::filesystem::path>& dataDir,
                            const EnvironmentLookup& environment = processEnvironment());

    const std::filesystem::path& root() const { return root_; }
    std::filesystem::path standardStoreFile() const;
    std::filesystem::path groupContainerDirectory() const;
    std::filesystem::path groupStoreFile() const;
    std::filesystem::path keychainFile() const;

    // Why the stores cannot be written here ("cannot write /x/Preferences: Permission denied"),
    // found by writing and removing a file beside each; absent when they can. The stores never
    // report a failed write, so that the flows go on as they must; a program that promises a
    // save checks with this.
    std::optional<std::string> unwritable() const;

  private:
    std::filesystem::path root_;
};

}  // namespace velmorand
