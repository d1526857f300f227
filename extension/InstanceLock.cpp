#include "velmorand/extension/InstanceLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

namespace velmorand::extension {
namespace {

constexpr int kLookerRetries = 10;
constexpr auto kLookerRetryPause = std::chrono::milliseconds(20);

std::optional<long> recordedPid(int descriptor) {
    char buffer[32] = {};
    const auto count = ::pread(descriptor, buffer, sizeof buffer - 1, 0);
    if (count <= 0) {
        return std::nullopt;
    }
    char* end = nullptr;
    const long pid = std::strtol(buffer, &end, 10);
    if (end == buffer || pid <= 0) {
        return std::nullopt;
    }
    return pid;
}

}  // namespace

InstanceLock::InstanceLock(std::filesystem::path file) : file_(std::move(file)) {
    descriptor_ = ::open(file_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor_ < 0) {
        error_ = file_.string() + ": " + std::strerror(errno);
        return;
    }
    // Programs that only look whether a broadcast runs hold the lock shared for a moment and
    // record no id: a lock held without one is tried again, briefly, before it counts as taken.
    int failure = 0;
    for (int attempt = 0;; ++attempt) {
        int result = 0;
        do {
            result = ::flock(descriptor_, LOCK_EX | LOCK_NB);
        } while (result != 0 && errno == EINTR);
        failure = result == 0 ? 0 : errno;
        if (failure != EWOULDBLOCK) {
            break;
        }
        holder_ = recordedPid(descriptor_);
        if (holder_ || attempt == kLookerRetries) {
            break;
        }
        std::this_thread::sleep_for(kLookerRetryPause);
    }
    if (failure != 0) {
        if (failure != EWOULDBLOCK) {
            error_ = file_.string() + ": " + std::strerror(failure);
        }
        ::close(descriptor_);
        descriptor_ = -1;
        return;
    }
    held_ = true;
    const std::string pid = std::to_string(::getpid()) + "\n";
    // Should this fail, the lock still holds; a second start just cannot name its holder.
    if (::ftruncate(descriptor_, 0) == 0) {
        [[maybe_unused]] const auto written = ::pwrite(descriptor_, pid.data(), pid.size(), 0);
    }
}

InstanceLock::~InstanceLock() {
    if (descriptor_ < 0) {
        return;
    }
    // A stale id must not be reported once nobody holds the lock.
    [[maybe_unused]] const int ignored = ::ftruncate(descriptor_, 0);
    ::close(descriptor_);
}

}  // namespace velmorand::extension
