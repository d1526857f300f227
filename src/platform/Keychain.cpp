#include "velmorand/platform/Keychain.h"

namespace velmorand::keychain {
namespace {

constexpr std::string_view kIdentity[] = {kClass, kService, kAccount, kAccessGroup};

bool asks(const KeychainAttributes& query, std::string_view flag) {
    const auto it = query.find(flag);
    return it != query.end() && std::holds_alternative<bool>(it->second) &&
           std::get<bool>(it->second);
}

}  // namespace

bool matches(const KeychainAttributes& item, const KeychainAttributes& query) {
    for (const auto name : kIdentity) {
        const auto wanted = query.find(name);
        if (wanted == query.end()) {
            continue;
        }
        const auto found = item.find(name);
        if (found == item.end() || found->second != wanted->second) {
            return false;
        }
    }
    return true;
}

bool sameIdentity(const KeychainAttributes& a, const KeychainAttributes& b) {
    for (const auto name : kIdentity) {
        const auto inA = a.find(name);
        const auto inB = b.find(name);
        if ((inA == a.end()) != (inB == b.end()) ||
            (inA != a.end() && inA->second != inB->second)) {
            return false;
        }
    }
    return true;
}

KeychainAttributes storedAttributes(const KeychainAttributes& attributes) {
    KeychainAttributes stored;
    for (const auto& [name, value] : attributes) {
        if (!name.starts_with("r_") && !name.starts_with("m_")) {
            stored.emplace(name, value);
        }
    }
    return stored;
}

void fillResult(const KeychainAttributes& item, const KeychainAttributes& query,
                KeychainResult* result) {
    if (result == nullptr) {
        return;
    }
    if (asks(query, kReturnData)) {
        const auto it = item.find(kValueData);
        *result = it != item.end() && std::holds_alternative<Bytes>(it->second)
                      ? KeychainResult{std::get<Bytes>(it->second)}
                      : KeychainResult{Bytes{}};
    } else if (asks(query, kReturnAttributes)) {
        auto attributes = item;
        attributes.erase(std::string(kValueData));
        *result = std::move(attributes);
    } else {
        *result = std::monostate{};
    }
}

}  // namespace velmorand::keychain
