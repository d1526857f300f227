#pragma once

#include <sys/types.h>

#include <filesystem>
#include <optional>
#include <string>

namespace velmorand::files {

// One version of a file that writers replace by renaming a new file over it: each write brings a
// new inode, and most often a new size and modification time as well.
struct FileStamp {
    dev_t device = 0;
    ino_t inode = 0;
    off_t size = 0;
    long long modifiedSeconds = 0;
    long long modifiedNanoseconds = 0;

    bool operator==(const FileStamp&) const = default;
};

enum class ReadStatus { ok, missing, unreadable };

// Reads the regular file at `path` whole into `out`, and the stamp of the version read into
// `stamp` when given. Anything but a regular file is unreadable; opening never blocks (a pipe).
ReadStatus readRegularFile(const std::filesystem::path& path, std::string& out,
                           std::optional<FileStamp>* stamp = nullptr);

// The version at `path` now; absent when there is no file.
std::optional<FileStamp> stampOf(const std::filesystem::path& path);

}  // namespace velmorand::files
