#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "velmorand/platform/Keychain.h"

namespace velmorand {

namespace plist {
class PlistFile;
}

// Generic-password items kept in a property-list file (an array of attribute dictionaries),
// shared between processes under an advisory lock. Access groups follow the provisioning
// profile: adds land in its default group and may name only groups it grants; without a profile
// every add is refused with kMissingEntitlement.
class PlistKeychain : public Keychain {
  public:
    // `profile`: the path of the embedded provisioning profile, when the installation has one.
    PlistKeychain(std::filesystem::path file, std::optional<std::filesystem::path> profile);
    ~PlistKeychain() override;

    int copyMatching(const KeychainAttributes& query, KeychainResult* result) override;
    int add(const KeychainAttributes& attributes, KeychainResult* result) override;
    int remove(const KeychainAttributes& query) override;

    // The profile's rule for an item about to be added: the access group it names must be granted;
    // without one it gets the default group. kSuccess, or kMissingEntitlement.
    int assignAccessGroup(KeychainAttributes& item) const;

  private:
    bool grants(std::string_view accessGroup) const;

    std::mutex mutex_;
    std::unique_ptr<plist::PlistFile> file_;
    std::optional<std::string> defaultAccessGroup_;
    // A trailing "*" grants every group with the text before it as prefix.
    std::vector<std::string> grantedGroups_;
};

}  // namespace velmorand
