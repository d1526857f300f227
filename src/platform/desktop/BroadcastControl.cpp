#include "velmorand/desktop/BroadcastControl.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include "FileRead.h"
#include "FileWrite.h"

namespace velmorand {
namespace {

// Closes on every path out.
class Descriptor {
  public:
    explicit Descriptor(int descriptor) : descriptor_(descriptor) {}
    ~Descriptor() {
        if (descriptor_ >= 0) {
            ::close(descriptor_);
        }
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    int get() const { return descriptor_; }

  private:
    int descriptor_;
};

// The id the lock's holder wrote; 0 when it has not yet.
long recordedPid(int descriptor) {
    char buffer[32] = {};
    const auto count = ::pread(descriptor, buffer, sizeof buffer - 1, 0);
    if (count <= 0) {
        return 0;
    }
    char* end = nullptr;
    const long pid = std::strtol(buffer, &end, 10);
    return end != buffer && pid > 0 ? pid : 0;
}

}  // namespace

BroadcastControl::BroadcastControl(const std::filesystem::path& container)
    : stateFile_(container / kStateFileName), lockFile_(container / kLockFileName) {}

std::optional<long> BroadcastControl::runningPid() const {
    // Never created, never held. O_NONBLOCK: a FIFO planted under the name must not stall us.
    const Descriptor lock(
        ::open(lockFile_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    if (lock.get() < 0) {
        return std::nullopt;
    }
    int result = 0;
    do {
        result = ::flock(lock.get(), LOCK_SH | LOCK_NB);
    } while (result != 0 && errno == EINTR);
    if (result == 0) {
        ::flock(lock.get(), LOCK_UN);
        return std::nullopt;
    }
    if (errno != EWOULDBLOCK) {
        return std::nullopt;
    }
    return recordedPid(lock.get());
}

std::optional<std::string> BroadcastControl::stateText() const {
    const auto stamp = files::stampOf(stateFile_);
    std::string text;
    if (!stamp || stamp->size < 0 || static_cast<std::size_t>(stamp->size) > kMaxStateBytes ||
        files::readRegularFile(stateFile_, text) != files::ReadStatus::ok ||
        text.size() > kMaxStateBytes) {
        return std::nullopt;
    }
    return text;
}

bool BroadcastControl::requestStop() const {
    const auto pid = runningPid();
    if (!pid || *pid <= 1 || *pid == ::getpid()) {
        return false;
    }
    return ::kill(static_cast<pid_t>(*pid), SIGTERM) == 0;
}

bool BroadcastControl::publish(std::string_view stateText) const {
    return files::replaceAtomically(stateFile_, stateText, files::Durability::unsynced);
}

}  // namespace velmorand
