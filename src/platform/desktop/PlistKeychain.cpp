#include "velmorand/desktop/PlistKeychain.h"

#include "PlistFile.h"
#include "PlistHandle.h"
#include "velmorand/platform/Files.h"

namespace velmorand {
namespace {

using plist::PlistHandle;

// The platform's status for a failed read or write of the store itself.
constexpr int kIoError = -36;

KeychainAttributes attributesOf(plist_t item) {
    KeychainAttributes attributes;
    plist_dict_iter iterator = nullptr;
    plist_dict_new_iter(item, &iterator);
    while (true) {
        char* key = nullptr;
        plist_t value = nullptr;
        plist_dict_next_item(item, iterator, &key, &value);
        if (value == nullptr) {
            free(key);
            break;
        }
        if (auto stored = plist::storedValue(value); stored && key != nullptr) {
            attributes.emplace(key, std::move(*stored));
        }
        free(key);
    }
    free(iterator);
    return attributes;
}

PlistHandle itemOf(const KeychainAttributes& attributes) {
    auto item = PlistHandle::dictionary();
    for (const auto& [name, value] : attributes) {
        plist_dict_set_item(item.get(), name.c_str(), plist::newNode(value));
    }
    return item;
}

// Visits the dictionary items of the keychain array with their attributes; `visit` returns
// false to stop.
template <typename Visit>
void forEachItem(plist_t items, Visit&& visit) {
    const auto count = plist_array_get_size(items);
    for (std::uint32_t index = 0; index < count; ++index) {
        plist_t item = plist_array_get_item(items, index);
        if (plist::isType(item, PLIST_DICT) && !visit(index, attributesOf(item))) {
            return;
        }
    }
}

// The profile is a signed container around an XML property list; the list is found by text
// search rather than by parsing the signature.
PlistHandle profileEntitlements(const std::filesystem::path& profile) {
    const auto contents = readWholeFile(profile);
    if (!contents) {
        return {};
    }
    const std::string& bytes = *contents;
    const auto begin = bytes.find("<?xml");
    const auto end = bytes.find("</plist>");
    if (begin == std::string::npos || end == std::string::npos || end < begin) {
        return {};
    }
    const auto length = end + std::string_view("</plist>").size() - begin;
    auto root = PlistHandle::parse(
        std::span(reinterpret_cast<const std::uint8_t*>(bytes.data()) + begin, length));
    if (!plist::isType(root.get(), PLIST_DICT)) {
        return {};
    }
    plist_t entitlements = plist_dict_get_item(root.get(), "Entitlements");
    if (!plist::isType(entitlements, PLIST_DICT)) {
        return {};
    }
    return PlistHandle(plist_copy(entitlements));
}

}  // namespace

PlistKeychain::PlistKeychain(std::filesystem::path file,
                             std::optional<std::filesystem::path> profile)
    : file_(std::make_unique<plist::PlistFile>(std::move(file))) {
    if (!profile) {
        return;
    }
    const auto entitlements = profileEntitlements(*profile);
    if (!entitlements) {
        return;
    }
    std::optional<std::string> applicationIdentifier =
        plist::stringValue(plist_dict_get_item(entitlements.get(), "application-identifier"));
    plist_t groups = plist_dict_get_item(entitlements.get(), "keychain-access-groups");
    if (plist::isType(groups, PLIST_ARRAY)) {
        const auto count = plist_array_get_size(groups);
        for (std::uint32_t index = 0; index < count; ++index) {
            if (auto group = plist::stringValue(plist_array_get_item(groups, index))) {
                grantedGroups_.push_back(std::move(*group));
            }
        }
    }
    if (!grantedGroups_.empty()) {
        defaultAccessGroup_ = grantedGroups_.front();
        // A wildcard is no group to store items in; the application's own identifier is.
        if (defaultAccessGroup_->ends_with('*') && applicationIdentifier) {
            defaultAccessGroup_ = applicationIdentifier;
        }
    } else if (applicationIdentifier) {
        defaultAccessGroup_ = applicationIdentifier;
        grantedGroups_.push_back(*applicationIdentifier);
    }
}

PlistKeychain::~PlistKeychain() = default;

bool PlistKeychain::grants(std::string_view accessGroup) const {
    for (const auto& granted : grantedGroups_) {
        if (granted.ends_with('*')
                ? accessGroup.starts_with(std::string_view(granted).substr(0, granted.size() - 1))
                : accessGroup == granted) {
            return true;
        }
    }
    return false;
}

int PlistKeychain::copyMatching(const KeychainAttributes& query, KeychainResult* result) {
    std::lock_guard lock(mutex_);
    const plist::PlistFile::Lock fileLock(*file_);
    const auto content = file_->read(PLIST_ARRAY);
    int status = keychain::kItemNotFound;
    forEachItem(content.root.get(), [&](std::uint32_t, const KeychainAttributes& item) {
        if (!keychain::matches(item, query)) {
            return true;
        }
        keychain::fillResult(item, query, result);
        status = keychain::kSuccess;
        return false;
    });
    return status;
}

int PlistKeychain::assignAccessGroup(KeychainAttributes& item) const {
    if (const auto group = item.find(keychain::kAccessGroup); group != item.end()) {
        return std::holds_alternative<std::string>(group->second) &&
                       grants(std::get<std::string>(group->second))
                   ? keychain::kSuccess
                   : keychain::kMissingEntitlement;
    }
    if (!defaultAccessGroup_) {
        return keychain::kMissingEntitlement;
    }
    item.emplace(std::string(keychain::kAccessGroup), *defaultAccessGroup_);
    return keychain::kSuccess;
}

int PlistKeychain::add(const KeychainAttributes& attributes, KeychainResult* result) {
    std::lock_guard lock(mutex_);
    KeychainAttributes item = keychain::storedAttributes(attributes);
    if (const int status = assignAccessGroup(item); status != keychain::kSuccess) {
        return status;
    }

    const plist::PlistFile::Lock fileLock(*file_);
    const auto content = file_->read(PLIST_ARRAY);
    bool duplicate = false;
    forEachItem(content.root.get(), [&](std::uint32_t, const KeychainAttributes& existing) {
        duplicate = keychain::sameIdentity(existing, item);
        return !duplicate;
    });
    if (duplicate) {
        return keychain::kDuplicateItem;
    }
    PlistHandle updated(plist_copy(content.root.get()));
    plist_array_append_item(updated.get(), itemOf(item).release());
    if (!file_->write(updated, content)) {
        return kIoError;
    }
    keychain::fillResult(item, attributes, result);
    return keychain::kSuccess;
}

int PlistKeychain::remove(const KeychainAttributes& query) {
    std::lock_guard lock(mutex_);
    const plist::PlistFile::Lock fileLock(*file_);
    const auto content = file_->read(PLIST_ARRAY);
    std::vector<std::uint32_t> doomed;
    forEachItem(content.root.get(), [&](std::uint32_t index, const KeychainAttributes& item) {
        if (keychain::matches(item, query)) {
            doomed.push_back(index);
        }
        return true;
    });
    if (doomed.empty()) {
        return keychain::kItemNotFound;
    }
    PlistHandle updated(plist_copy(content.root.get()));
    for (auto it = doomed.rbegin(); it != doomed.rend(); ++it) {
        plist_array_remove_item(updated.get(), *it);
    }
    return file_->write(updated, content) ? keychain::kSuccess : kIoError;
}

}  // namespace velmorand
