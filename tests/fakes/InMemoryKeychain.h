#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "velmorand/platform/Keychain.h"

namespace velmorand::testing {

// Generic-password items matched on every identifying attribute a query names; an add without
// an access group lands in `defaultAccessGroup`, and an add is refused with kMissingEntitlement
// when there is none (an installation without a provisioning profile).
class InMemoryKeychain : public Keychain {
  public:
    int copyMatching(const KeychainAttributes& query, KeychainResult* result) override {
        std::lock_guard lock(mutex_);
        ++copyCount;
        for (const auto& item : items) {
            if (matches(item, query)) {
                fill(item, query, result);
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
        KeychainAttributes item;
        for (const auto& [name, value] : attributes) {
            if (!isControl(name)) {
                item.emplace(name, value);
            }
        }
        if (!item.contains(keychain::kAccessGroup)) {
            if (!defaultAccessGroup) {
                return keychain::kMissingEntitlement;
            }
            item.emplace(std::string(keychain::kAccessGroup), *defaultAccessGroup);
        }
        for (const auto& existing : items) {
            if (sameIdentity(existing, item)) {
                return keychain::kDuplicateItem;
            }
        }
        items.push_back(item);
        fill(item, attributes, result);
        return keychain::kSuccess;
    }

    int remove(const KeychainAttributes& query) override {
        std::lock_guard lock(mutex_);
        ++removeCount;
        const auto before = items.size();
        std::erase_if(items, [&](const KeychainAttributes& item) { return matches(item, query); });
        return items.size() == before ? keychain::kItemNotFound : keychain::kSuccess;
    }

    std::optional<std::string> defaultAccessGroup = "TEAM123.co.velmorand.connect";
    std::vector<KeychainAttributes> items;
    bool failAdds = false;
    int copyCount = 0;
    int addCount = 0;
    int removeCount = 0;

  private:
    static bool isControl(std::string_view name) {
        return name == keychain::kReturnAttributes || name == keychain::kReturnData ||
               name == keychain::kMatchLimit;
    }
    static bool isIdentity(std::string_view name) {
        return name == keychain::kClass || name == keychain::kService ||
               name == keychain::kAccount || name == keychain::kAccessGroup;
    }
    static bool matches(const KeychainAttributes& item, const KeychainAttributes& query) {
        for (const auto& [name, value] : query) {
            if (!isIdentity(name)) {
                continue;
            }
            const auto it = item.find(name);
            if (it == item.end() || it->second != value) {
                return false;
            }
        }
        return true;
    }
    static bool sameIdentity(const KeychainAttributes& a, const KeychainAttributes& b) {
        return matches(a, b) && matches(b, a);
    }
    static bool asks(const KeychainAttributes& query, std::string_view flag) {
        const auto it = query.find(flag);
        return it != query.end() && std::holds_alternative<bool>(it->second) &&
               std::get<bool>(it->second);
    }
    static void fill(const KeychainAttributes& item, const KeychainAttributes& query,
                     KeychainResult* result) {
        if (!result) {
            return;
        }
        if (asks(query, keychain::kReturnData)) {
            const auto it = item.find(keychain::kValueData);
            *result = it != item.end() && std::holds_alternative<Bytes>(it->second)
                          ? KeychainResult{std::get<Bytes>(it->second)}
                          : KeychainResult{Bytes{}};
        } else if (asks(query, keychain::kReturnAttributes)) {
            KeychainAttributes attributes = item;
            attributes.erase(std::string(keychain::kValueData));
            *result = std::move(attributes);
        } else {
            *result = std::monostate{};
        }
    }

    std::mutex mutex_;
};

}  // namespace velmorand::testing
