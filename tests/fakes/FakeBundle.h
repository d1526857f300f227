#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "velmorand/platform/Bundle.h"

namespace velmorand::testing {

// A bundle laid out in a directory the test owns.
class FakeBundle : public Bundle {
  public:
    explicit FakeBundle(std::filesystem::path root) : root_(std::move(root)) {}

    std::filesystem::path installDirectory() const override { return root_; }
    std::optional<std::filesystem::path> resource(std::string_view name,
                                                  std::string_view extension) const override {
        auto path = root_ / (std::string(name) + "." + std::string(extension));
        if (!std::filesystem::exists(path)) {
            return std::nullopt;
        }
        return path;
    }
    std::optional<std::string> bundleIdentifier() const override { return identifier; }
    std::optional<std::filesystem::path> plugInsDirectory() const override {
        return root_ / "PlugIns";
    }

    std::optional<std::string> identifier = "co.velmorand.connect";

  private:
    std::filesystem::path root_;
};

}  // namespace velmorand::testing
