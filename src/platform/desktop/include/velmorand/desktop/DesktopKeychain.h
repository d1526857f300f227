#pragma once

#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>

#include "velmorand/desktop/DataRoot.h"
#include "velmorand/desktop/PlistKeychain.h"
#include "velmorand/platform/Keychain.h"

namespace velmorand {

// The keychain a desktop program uses: the desktop's keyring when its Secret Service runs on the
// session bus with the keyring open, else the property-list file under the data root. Either way
// access groups follow the provisioning profile. $VELMORAND_KEYCHAIN chooses instead: "file", or
// "secret-service" (which, without a usable service, answers kNotAvailable rather than fall
// back). The choice is made at the first call, so programs that never read the configuration
// never reach the bus.
//
// The two stores are never copied into each other: the configuration's own reads rebuild the
// mirror from the other stores. So that neither can later bring back what the other has since
// changed or removed, the keyring, when chosen while the file holds items (the file was used
// since), is emptied together with the file. A change the keyring refused (locked, or not
// answering) leaves an item in the file for the same reason: the keyring may hold what was meant
// to go.
class DesktopKeychain : public Keychain {
  public:
    static constexpr std::chrono::milliseconds kBound{5000};

    DesktopKeychain(const DataRoot& root, std::optional<std::filesystem::path> profile,
                    EnvironmentLookup environment = processEnvironment());
    ~DesktopKeychain() override;

    int copyMatching(const KeychainAttributes& query, KeychainResult* result) override;
    int add(const KeychainAttributes& attributes, KeychainResult* result) override;
    int remove(const KeychainAttributes& query) override;

  private:
    // The keyring, or null for the file.
    Keychain* keyring();
    // Passes on the keyring's answer to a change, noting in the file when it refused.
    int changed(int status);

    PlistKeychain file_;
    std::string scope_;
    EnvironmentLookup environment_;
    std::once_flag chosen_;
    std::unique_ptr<Keychain> keyring_;
};

}  // namespace velmorand
