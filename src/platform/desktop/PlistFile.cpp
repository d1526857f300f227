#include "PlistFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <span>

#include "velmorand/desktop/FileWrite.h"

namespace velmorand::plist {

using files::withSuffix;

PlistFile::Lock::Lock(const PlistFile& file) {
    const auto lockPath = withSuffix(file.path(), ".lock");
    if (!files::makeDirectories(lockPath.parent_path())) {
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
        const bool setAside = previous.bytes ? files::replaceAtomically(aside, *previous.bytes)
                                             : ::rename(path_.c_str(), aside.c_str()) == 0;
        if (!setAside) {
            // Better to keep a damaged file than to lose what it may still hold.
            return false;
        }
    }
    return files::replaceAtomically(path_, *xml);
}

}  // namespace velmorand::plist
