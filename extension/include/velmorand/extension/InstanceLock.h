#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace velmorand::extension {

// Keeps a second broadcast from starting: an advisory lock on a file that also records the
// holder's process id. The lock goes with the process, however it ends.
class InstanceLock {
  public:
    // Tries once; never waits.
    explicit InstanceLock(std::filesystem::path file);
    ~InstanceLock();
    InstanceLock(const InstanceLock&) = delete;
    InstanceLock& operator=(const InstanceLock&) = delete;

    bool held() const { return held_; }
    // When another process holds the lock: the id it recorded, if it has done so yet.
    std::optional<long> holder() const { return holder_; }
    // Why the lock file could not be used at all.
    const std::optional<std::string>& error() const { return error_; }

  private:
    std::filesystem::path file_;
    int descriptor_ = -1;
    bool held_ = false;
    std::optional<long> holder_;
    std::optional<std::string> error_;
};

}  // namespace velmorand::extension
