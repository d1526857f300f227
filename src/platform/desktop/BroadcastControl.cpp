#include "velmorand/desktop/BroadcastControl.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <string>

#include "velmorand/desktop/FileWrite.h"

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

// Whether process `pid` of this machine has `file` open: the id written in the lock file is
// believed only then, so that a stale id, or one written on another machine sharing the
// directory, never has an unrelated process signalled.
bool holdsOpen(long pid, const std::filesystem::path& file) {
    struct stat wanted {};
    if (::stat(file.c_str(), &wanted) != 0) {
        return false;
    }
    std::error_code error;
    const std::filesystem::path descriptors = "/proc/" + std::to_string(pid) + "/fd";
    for (std::filesystem::directory_iterator entry(descriptors, error), end; !error && entry != end;
         entry.increment(error)) {
        struct stat open {};
        if (::stat(entry->path().c_str(), &open) == 0 && open.st_dev == wanted.st_dev &&
            open.st_ino == wanted.st_ino) {
            return true;
        }
    }
    return false;
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
    // An id left by a broadcast that was killed stays in the file until the next one has
    // recorded its own: until then the holder is not yet known.
    const long pid = recordedPid(lock.get());
    return pid != 0 && holdsOpen(pid, lockFile_) ? pid : 0;
}

std::optional<std::string> BroadcastControl::stateText() const {
    // The file is checked and read through one descriptor, and never past the bound: a larger
    // file, or one that grows, is not the broadcast's.
    const Descriptor file(
        ::open(stateFile_.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOFOLLOW));
    struct stat info {};
    if (file.get() < 0 || ::fstat(file.get(), &info) != 0 || !S_ISREG(info.st_mode) ||
        info.st_size < 0 || static_cast<std::size_t>(info.st_size) > kMaxStateBytes) {
        return std::nullopt;
    }
    std::string text(kMaxStateBytes + 1, '\0');
    std::size_t filled = 0;
    while (filled < text.size()) {
        const auto count = ::read(file.get(), text.data() + filled, text.size() - filled);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            return std::nullopt;
        }
        if (count == 0) {
            break;
        }
        filled += static_cast<std::size_t>(count);
    }
    if (filled > kMaxStateBytes) {
        return std::nullopt;
    }
    text.resize(filled);
    return text;
}

std::optional<long> BroadcastControl::requestStop() const {
    const auto pid = runningPid();
    if (!pid || *pid <= 1 || *pid == ::getpid() || ::kill(static_cast<pid_t>(*pid), SIGTERM) != 0) {
        return std::nullopt;
    }
    return pid;
}

bool BroadcastControl::publish(std::string_view stateText) const {
    return files::replaceAtomically(stateFile_, stateText, files::Durability::unsynced);
}

}  // namespace velmorand
