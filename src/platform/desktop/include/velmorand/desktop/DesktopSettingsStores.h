#pragma once

#include <memory>
#include <mutex>

#include "velmorand/desktop/DataRoot.h"
#include "velmorand/desktop/PlistSettingsStore.h"
#include "velmorand/platform/SettingsStore.h"

namespace velmorand {

// The standard store and the one application-group suite, as property-list files under a data
// root. Each suite opens once; later calls return the same store.
class DesktopSettingsStores : public SettingsStores {
  public:
    explicit DesktopSettingsStores(DataRoot root);

    // The group store for DataRoot::kGroupName; null for any other name.
    std::shared_ptr<SettingsStore> suite(std::string_view groupName) override;
    SettingsStore& standard() override { return standard_; }

  private:
    DataRoot root_;
    PlistSettingsStore standard_;
    std::mutex mutex_;
    std::shared_ptr<PlistSettingsStore> group_;
};

}  // namespace velmorand
