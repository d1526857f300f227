#include "PlistFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <span>

namespace velmorand::plist {
namespace {

std::filesystem::path withSuffix(const std::filesystem::path& path, std::string_view suffix) {
    auto result = path;
    result += std::string(suffix);
    return result;
}

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

void syncDirectory(const std::filesystem::path& directory) {
    const int descriptor = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor >= 0) {
        ::fsync(descriptor);
        ::close(descriptor);
    }
}

// Temp file beside the target, then rename: readers see the old or the new file, never a part.
// The temp name is fixed because every writer holds the file's lock; a temp left by a killed
// writer is simply overwritten.
bool replaceAtomically(const std::filesystem::path& path, std::string_view bytes) {
    const auto directory = path.parent_path();
    if (!PlistFile::makeDirectories(directory)) {
        return false;
    }
    const auto temporary = withSuffix(path, ".tmp");
    const int descriptor =
        ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (descriptor < 0) {
        return false;
    }
    const bool written =
        ::fchmod(descriptor, 0600) == 0 && writeAll(descriptor, bytes) && ::fsync(descriptor) == 0;
    const bool closed = ::close(descriptor) == 0;
    if (!written || !closed || ::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        return false;
    }
    syncDirectory(directory);
    return true;
}

}  // namespace

PlistFile::Lock::Lock(const PlistFile& file) {
    const auto lockPath = withSuffix(file.path(), ".lock");
    if (!makeDirectories(lockPath.parent_path())) {
        return;
    }
    descriptor_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (descriptor_ < 0) {
        return;
    }
    while (::flock(descriptor_, LOCK_EX) != 0 && errno == EINTR) {
    }
}

PlistFile::Lock::~Lock() {
    if (descriptor_ >= 0) {
        ::close(descriptor_);  // releases the lock
    }
}

PlistFile::Content PlistFile::read(plist_type rootType) const {
    Content content;
    std::string bytes;
    const auto status = files::readRegularFile(path_, bytes, &content.stamp);
    if (status == files::ReadStatus::ok) {
        auto parsed = PlistHandle::parse(
            std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size()));
        if (isType(parsed.get(), rootType)) {
            content.root = std::move(parsed);
            return content;
        }
        content.bytes = std::move(bytes);
    }
    content.damaged = status != files::ReadStatus::missing;
    content.root = PlistHandle(rootType == PLIST_ARRAY ? plist_new_array() : plist_new_dict());
    return content;
}

bool PlistFile::write(const PlistHandle& root, const Content& previous) const {
    const auto xml = root.toXml();
    if (!xml) {
        return false;
    }
    if (previous.damaged) {
        const auto aside = withSuffix(path_, ".corrupt");
        const bool setAside = previous.bytes ? replaceAtomically(aside, *previous.bytes)
                                             : ::rename(path_.c_str(), aside.c_str()) == 0;
        if (!setAside) {
            // Better to keep a damaged file than to lose what it may still hold.
            return false;
        }
    }
    return replaceAtomically(path_, *xml);
}

bool PlistFile::makeDirectories(const std::filesystem::path& directory) {
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

}  // namespace velmorand::plist
