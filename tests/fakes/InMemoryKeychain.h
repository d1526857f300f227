#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "velmorand/platform/Keychain.h"

namespace velmorand::testing {

// Generic-password items matched on every identifying attribute a query names; an add without
// an access group lands in the profile's first group.
class InMemoryKeychain : public Keychain {
  public:
    int copyMatching(const KeychainAttributes& query, KeychainResult* result) override {
        std::lock_guard lock(mutex_);
        ++copyCount;
        for (const auto& item : items) {
            if (keychain::matches(item, query)) {
                keychain::fillResult(item, query, result);
                return keychain::kSuccess;
            }
        }
        return keychain::kItemNotFound;
    }

    int add(const KeychainAttributes& attributes, KeychainResult* result) override {
        std::lock_guard lock(mutex_);
        ++addCount;
        if (failAdds) {
            return keychain::kParam;
        }
        KeychainAttributes item = keychain::storedAttributes(attributes);
        item.try_emplace(std::string(keychain::kAccessGroup),
                         StoredValue{std::string("TEAM123.co.velmorand.connect")});
        for (const auto& existing : items) {
            if (keychain::sameIdentity(existing, item)) {
                return keychain::kDuplicateItem;
            }
        }
        items.push_back(item);
        keychain::fillResult(item, attributes, result);
        return keychain::kSuccess;
    }

    int remove(const KeychainAttributes& query) override {
        std::lock_guard lock(mutex_);
        ++removeCount;
        const auto before = items.size();
        std::erase_if(
            items, [&](const KeychainAttributes& item) { return keychain::matches(item, query); });
        return items.size() == before ? keychain::kItemNotFound : keychain::kSuccess;
    }

    std::vector<KeychainAttributes> items;
    bool failAdds = false;
    int copyCount = 0;
    int addCount = 0;
    int removeCount = 0;

  private:
    std::mutex mutex_;
};

}  // namespace velmorand::testing
