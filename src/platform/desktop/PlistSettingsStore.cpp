#include "velmorand/desktop/PlistSettingsStore.h"

#include "PlistFile.h"
#include "PlistHandle.h"

namespace velmorand {

PlistSettingsStore::PlistSettingsStore(std::filesystem::path file)
    : file_(std::make_unique<plist::PlistFile>(std::move(file))) {}

PlistSettingsStore::~PlistSettingsStore() = default;

const std::filesystem::path& PlistSettingsStore::file() const {
    return file_->path();
}

void PlistSettingsStore::loadLocked() const {
    if (!content_) {
        content_ = std::make_unique<plist::PlistHandle>(file_->read(PLIST_DICT).root);
    }
}

std::optional<StoredValue> PlistSettingsStore::object(std::string_view key) const {
    std::lock_guard lock(mutex_);
    if (const auto it = pending_.find(key); it != pending_.end()) {
        return it->second;
    }
    loadLocked();
    return plist::storedValue(plist_dict_get_item(content_->get(), std::string(key).c_str()));
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
        }
    }
    content_ = std::make_unique<plist::PlistHandle>(std::move(current.root));
}

}  // namespace velmorand
