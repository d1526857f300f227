#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "FileRead.h"
#include "PlistHandle.h"

namespace velmorand::plist {

// One property-list file shared between processes: an advisory lock on a sidecar file, reads
// that never fail (a damaged file reads as an empty root), and atomic replacement that keeps a
// damaged file aside as `<file>.corrupt` first. Files are created 0600, directories 0700.
class PlistFile {
  public:
    // Holds the exclusive lock on `<file>.lock` for its lifetime.
    class Lock {
      public:
        explicit Lock(const PlistFile& file);
        ~Lock();
        Lock(const Lock&) = delete;
        Lock& operator=(const Lock&) = delete;

      private:
        int descriptor_ = -1;
    };

    struct Content {
        // Always of the requested container type.
        PlistHandle root;
        // The file exists but could not be read or is not a list of that type.
        bool damaged = false;
        // The bytes read, kept to set a damaged file aside.
        std::optional<std::string> bytes;
        // The version read; absent when no file was.
        std::optional<files::FileStamp> stamp;
    };

    explicit PlistFile(std::filesystem::path path) : path_(std::move(path)) {}

    const std::filesystem::path& path() const { return path_; }

    // `rootType` is PLIST_DICT or PLIST_ARRAY.
    Content read(plist_type rootType) const;
    // Replaces the file with `root` as XML. `previous` is what read() returned under the same
    // lock; a damaged file is set aside before it is replaced. False when nothing was written.
    bool write(const PlistHandle& root, const Content& previous) const;
    // The version on disk now; absent when there is no file.
    std::optional<files::FileStamp> stamp() const { return files::stampOf(path_); }

  private:
    std::filesystem::path path_;
};

}  // namespace velmorand::plist
