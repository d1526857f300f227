#include "velmorand/desktop/FileWrite.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string>

namespace velmorand::files {

bool writeAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const auto count = ::write(descriptor, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return false;
        }
        bytes.remove_prefix(static_cast<std::size_t>(count));
    }
    return true;
}

namespace {

void syncDirectory(const std::filesystem::path& directory) {
    const int descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor >= 0) {
        ::fsync(descriptor);
        ::close(descriptor);
    }
}

}  // namespace

std::filesystem::path withSuffix(const std::filesystem::path& path, std::string_view suffix) {
    auto result = path;
    result += std::string(suffix);
    return result;
}

bool replaceAtomically(const std::filesystem::path& path, std::string_view bytes,
                       Durability durability) {
    const bool synced = durability == Durability::synced;
    const auto directory = path.parent_path();
    if (!makeDirectories(directory)) {
        return false;
    }
    const auto temporary = withSuffix(path, ".tmp");
    // Made anew: whatever was left or planted under the name (a pipe that would block the open,
    // a hard link to another file) is not written through.
    ::unlink(temporary.c_str());
    const int descriptor =
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (descriptor < 0) {
        return false;
    }
    const bool written = ::fchmod(descriptor, 0600) == 0 && writeAll(descriptor, bytes) &&
                         (!synced || ::fsync(descriptor) == 0);
    const bool closed = ::close(descriptor) == 0;
    if (!written || !closed || ::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        return false;
    }
    if (synced) {
        syncDirectory(directory);
    }
    return true;
}

bool makeDirectories(const std::filesystem::path& directory) {
    if (directory.empty()) {
        return true;
    }
    struct stat info {};
    if (::stat(directory.c_str(), &info) == 0) {
        return S_ISDIR(info.st_mode);
    }
    if (directory.has_parent_path() && directory.parent_path() != directory &&
        !makeDirectories(directory.parent_path())) {
        return false;
    }
    if (::mkdir(directory.c_str(), 0700) == 0) {
        // The umask may narrow the mode, never widen it; make it exact.
        ::chmod(directory.c_str(), 0700);
        return true;
    }
    return errno == EEXIST;
}

}  // namespace velmorand::files
