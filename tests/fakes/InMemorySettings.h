#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "velmorand/platform/SettingsStore.h"

namespace velmorand::testing {

class InMemorySettingsStore : public SettingsStore {
  public:
    std::optional<StoredValue> object(std::string_view key) const override {
        std::lock_guard lock(mutex_);
        const auto it = values_.find(key);
        return it == values_.end() ? std::nullopt : std::optional(it->second);
    }
    void setObject(std::string_view key, std::optional<StoredValue> value) override {
        std::lock_guard lock(mutex_);
        if (value) {
            values_.insert_or_assign(std::string(key), std::move(*value));
        } else if (const auto it = values_.find(key); it != values_.end()) {
            values_.erase(it);
        }
    }
    void synchronize() override {
        std::lock_guard lock(mutex_);
        ++synchronizeCount;
    }

    std::map<std::string, StoredValue, std::less<>> snapshot() const {
        std::lock_guard lock(mutex_);
        return values_;
    }

    int synchronizeCount = 0;

  private:
    mutable std::mutex mutex_;
    std::map<std::string, StoredValue, std::less<>> values_;
};

// A group suite that opens only when `groupAvailable`; the standard store always exists.
class InMemorySettingsStores : public SettingsStores {
  public:
    std::shared_ptr<SettingsStore> suite(std::string_view) override {
        return groupOpens ? group : nullptr;
    }
    SettingsStore& standard() override { return *standardStore; }

    bool groupOpens = true;
    std::shared_ptr<InMemorySettingsStore> group = std::make_shared<InMemorySettingsStore>();
    std::shared_ptr<InMemorySettingsStore> standardStore =
        std::make_shared<InMemorySettingsStore>();
};

}  // namespace velmorand::testing
