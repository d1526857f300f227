#include "FileRead.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "velmorand/platform/Files.h"

namespace velmorand {
namespace files {
namespace {

FileStamp stampFrom(const struct stat& info) {
    return {info.st_dev, info.st_ino, info.st_size, info.st_mtim.tv_sec, info.st_mtim.tv_nsec};
}

}  // namespace

ReadStatus readRegularFile(const std::filesystem::path& path, std::string& out,
                           std::optional<FileStamp>* stamp) {
    // Non-blocking so that a pipe put where a file belongs cannot hold the open; a regular file
    // ignores the flag.
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (descriptor < 0) {
        return errno == ENOENT ? ReadStatus::missing : ReadStatus::unreadable;
    }
    struct stat info {};
    if (::fstat(descriptor, &info) != 0 || !S_ISREG(info.st_mode)) {
        ::close(descriptor);
        return ReadStatus::unreadable;
    }
    out.clear();
    char buffer[65536];
    while (true) {
        const auto count = ::read(descriptor, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count < 0) {
            ::close(descriptor);
            return ReadStatus::unreadable;
        }
        if (count == 0) {
            break;
        }
        out.append(buffer, static_cast<std::size_t>(count));
    }
    ::close(descriptor);
    if (stamp != nullptr) {
        *stamp = stampFrom(info);
    }
    return ReadStatus::ok;
}

std::optional<FileStamp> stampOf(const std::filesystem::path& path) {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
        return std::nullopt;
    }
    return stampFrom(info);
}

}  // namespace files

std::optional<std::string> readWholeFile(const std::filesystem::path& path) {
    std::string bytes;
    if (files::readRegularFile(path, bytes) != files::ReadStatus::ok) {
        return std::nullopt;
    }
    return bytes;
}

}  // namespace velmorand
