#include "velmorand/desktop/PlistSettingsStore.h"

#include "PlistFile.h"
#include "PlistHandle.h"

namespace velmorand {

struct PlistSettingsStore::Snapshot {
    plist::PlistHandle root;
    // The version of the file `root` came from.
    std::optional<files::FileStamp> stamp;
};

PlistSettingsStore::PlistSettingsStore(std::filesystem::path file)
    : file_(std::make_unique<plist::PlistFile>(std::move(file))) {}

PlistSettingsStore::~PlistSettingsStore() = default;

const std::filesystem::path& PlistSettingsStore::file() const {
    return file_->path();
}

void PlistSettingsStore::loadLocked() const {
    // The other programs sharing the file replace it whole; one stat tells whether they did.
    if (snapshot_ && file_->stamp() == snapshot_->stamp) {
        return;
    }
    auto content = file_->read(PLIST_DICT);
    snapshot_ = std::make_unique<Snapshot>(Snapshot{std::move(content.root), content.stamp});
}

std::optional<StoredValue> PlistSettingsStore::object(std::string_view key) const {
    std::lock_guard lock(mutex_);
    if (const auto it = pending_.find(key); it != pending_.end()) {
        return it->second;
    }
    loadLocked();
    return plist::storedValue(plist_dict_get_item(snapshot_->root.get(), std::string(key).c_str()));
}

void PlistSettingsStore::setObject(std::string_view key, std::optional<StoredValue> value) {
    std::lock_guard lock(mutex_);
    pending_.insert_or_assign(std::string(key), std::move(value));
}

void PlistSettingsStore::synchronize() {
    std::lock_guard lock(mutex_);
    const plist::PlistFile::Lock fileLock(*file_);
    auto current = file_->read(PLIST_DICT);
    if (!pending_.empty()) {
        // Merge into a copy so that a failed write leaves the changes pending and visible.
        plist::PlistHandle merged(plist_copy(current.root.get()));
        for (const auto& [key, value] : pending_) {
            if (value) {
                plist_dict_set_item(merged.get(), key.c_str(), plist::newNode(*value));
            } else if (plist_dict_get_item(merged.get(), key.c_str()) != nullptr) {
                plist_dict_remove_item(merged.get(), key.c_str());
            }
        }
        if (file_->write(merged, current)) {
            pending_.clear();
            current.root = std::move(merged);
            // Still under the file's lock: nobody else has written since.
            current.stamp = file_->stamp();
        }
    }
    snapshot_ = std::make_unique<Snapshot>(Snapshot{std::move(current.root), current.stamp});
}

}  // namespace velmorand
