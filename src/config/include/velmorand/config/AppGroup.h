#pragma once

#include <mutex>
#include <string_view>

namespace velmorand {

class Bundle;

inline constexpr std::string_view kAppGroupName = "group.co.velmorand.connect";

// Whether the installation is entitled to the shared application group, read once from the
// provisioning profile embedded in the bundle. One instance per process; the first evaluation is
// thread-safe and every later read returns the same answer, even if the profile changes on disk.
class AppGroup {
  public:
    explicit AppGroup(const Bundle& bundle) : bundle_(bundle) {}

    bool available() const;

    // The check itself, uncached.
    static bool hasAppGroupInEmbeddedProvision(const Bundle& bundle);

  private:
    const Bundle& bundle_;
    mutable std::once_flag once_;
    mutable bool available_ = false;
};

}  // namespace velmorand
