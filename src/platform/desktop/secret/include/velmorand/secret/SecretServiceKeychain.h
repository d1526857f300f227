#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "velmorand/platform/Keychain.h"

namespace velmorand {

// Generic-password items kept by the desktop's keyring, through the Secret Service on the session
// bus: an item's identifying attributes and accessibility become the keyring item's attributes,
// its data the secret. Every item also carries `scope`, so that installations with different
// data directories never see each other's items. Adds store the attributes as given: which
// access groups an item may name is the caller's rule.
//
// It never prompts: a locked keyring answers kInteractionNotAllowed. Every call ends within the
// bound it was opened with; after a call that did not, the service is not asked again and every
// call answers kNotAvailable.
class SecretServiceKeychain : public Keychain {
  public:
    // The keychain of the Secret Service already running on the session bus, when its default
    // collection is open; null when there is no session bus (none is launched), no service, no
    // default collection or a locked one, or no answer within `bound`.
    static std::unique_ptr<SecretServiceKeychain> connect(std::string scope,
                                                          std::chrono::milliseconds bound);
    ~SecretServiceKeychain() override;

    int copyMatching(const KeychainAttributes& query, KeychainResult* result) override;
    int add(const KeychainAttributes& attributes, KeychainResult* result) override;
    int remove(const KeychainAttributes& query) override;

    struct Service;

  private:
    explicit SecretServiceKeychain(std::unique_ptr<Service> service);

    std::unique_ptr<Service> service_;
};

}  // namespace velmorand
