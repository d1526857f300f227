#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

namespace velmorand {

// The installed application bundle.
class Bundle {
  public:
    virtual ~Bundle() = default;

    virtual std::filesystem::path installDirectory() const = 0;
    // The path of the resource `name`.`extension`, when the bundle holds it.
    virtual std::optional<std::filesystem::path> resource(std::string_view name,
                                                          std::string_view extension) const = 0;
    virtual std::optional<std::string> bundleIdentifier() const = 0;
    virtual std::optional<std::filesystem::path> plugInsDirectory() const = 0;
};

// Where an application group keeps its shared files.
class GroupContainers {
  public:
    virtual ~GroupContainers() = default;

    virtual std::optional<std::filesystem::path> containerDirectory(
        std::string_view groupName) const = 0;
};

}  // namespace velmorand
