#pragma once

#include <map>
#include <string>
#include <string_view>
#include <variant>

#include "velmorand/platform/StoredValue.h"

namespace velmorand {

// Attribute and query dictionaries use the platform's own attribute names, so that queries built
// by the callers map one to one onto stored items.
namespace keychain {
inline constexpr std::string_view kClass = "class";
inline constexpr std::string_view kClassGenericPassword = "genp";
inline constexpr std::string_view kService = "svce";
inline constexpr std::string_view kAccount = "acct";
inline constexpr std::string_view kAccessGroup = "agrp";
inline constexpr std::string_view kAccessible = "pdmn";
inline constexpr std::string_view kAccessibleAfterFirstUnlockThisDeviceOnly = "cku";
inline constexpr std::string_view kValueData = "v_Data";
inline constexpr std::string_view kReturnAttributes = "r_Attributes";
inline constexpr std::string_view kReturnData = "r_Data";
inline constexpr std::string_view kMatchLimit = "m_Limit";
inline constexpr std::string_view kMatchLimitOne = "m_LimitOne";

inline constexpr int kSuccess = 0;
inline constexpr int kItemNotFound = -25300;
inline constexpr int kDuplicateItem = -25299;
inline constexpr int kMissingEntitlement = -34018;
inline constexpr int kParam = -50;
// The keychain is locked, and unlocking it would need the user.
inline constexpr int kInteractionNotAllowed = -25308;
// The keychain cannot be reached (or did not answer in time).
inline constexpr int kNotAvailable = -25291;
}  // namespace keychain

using KeychainAttributes = std::map<std::string, StoredValue, std::less<>>;

// What a call leaves in its result slot: nothing, an item's attributes, or its data,
// depending on what the query asked to be returned.
using KeychainResult = std::variant<std::monostate, KeychainAttributes, Bytes>;

// How every implementation reads queries: the platform's own rules, shared so that a store of
// items and its stand-ins agree.
namespace keychain {
// Whether `item` has every identifying attribute (class, service, account, access group) that
// `query` names, with the same value.
bool matches(const KeychainAttributes& item, const KeychainAttributes& query);
// Whether two items agree on all four identifying attributes, absent ones included.
bool sameIdentity(const KeychainAttributes& a, const KeychainAttributes& b);
// What an add stores: the attributes without the query's control entries (r_*, m_*).
KeychainAttributes storedAttributes(const KeychainAttributes& attributes);
// Fills `result` (when given) as `query` asks: the item's data, its attributes, or nothing.
void fillResult(const KeychainAttributes& item, const KeychainAttributes& query,
                KeychainResult* result);
}  // namespace keychain

// Generic-password items. Calls return a status from keychain::k*; implementations are
// thread-safe.
class Keychain {
  public:
    virtual ~Keychain() = default;

    virtual int copyMatching(const KeychainAttributes& query, KeychainResult* result) = 0;
    virtual int add(const KeychainAttributes& attributes, KeychainResult* result) = 0;
    virtual int remove(const KeychainAttributes& query) = 0;
};

}  // namespace velmorand
