#pragma once

#include <filesystem>
#include <map>
#include <mutex>
#include <string_view>

#include "velmorand/platform/ClassLookup.h"

namespace velmorand {

// A class exists when one of the shared libraries the bundle ships under Frameworks/ loads and
// exports a symbol of that name: the desktop's stand-in for run-time class lookup. A library,
// once loaded, stays loaded for the life of the process, as a linked runtime would.
class FrameworkClassLookup : public ClassLookup {
  public:
    explicit FrameworkClassLookup(std::filesystem::path frameworksDirectory)
        : frameworksDirectory_(std::move(frameworksDirectory)) {}

    bool classExists(std::string_view name) const override;

  private:
    void* load(const std::filesystem::path& library) const;

    std::filesystem::path frameworksDirectory_;
    mutable std::mutex mutex_;
    mutable std::map<std::filesystem::path, void*> loaded_;
};

}  // namespace velmorand
