#include "velmorand/desktop/DesktopSettingsStores.h"

namespace velmorand {

DesktopSettingsStores::DesktopSettingsStores(DataRoot root)
    : root_(std::move(root)), standard_(root_.standardStoreFile()) {}

std::shared_ptr<SettingsStore> DesktopSettingsStores::suite(std::string_view groupName) {
    if (groupName != DataRoot::kGroupName) {
        return nullptr;
    }
    std::lock_guard lock(mutex_);
    if (!group_) {
        group_ = std::make_shared<PlistSettingsStore>(root_.groupStoreFile());
    }
    return group_;
}

}  // namespace velmorand
