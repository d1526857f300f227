#include "velmorand/desktop/DesktopKeychain.h"

#include <string>

#include "velmorand/secret/SecretServiceKeychain.h"

namespace velmorand {
namespace {

// Answers every call with kNotAvailable: the keyring that was asked for and is not there.
class UnavailableKeychain : public Keychain {
  public:
    int copyMatching(const KeychainAttributes&, KeychainResult*) override {
        return keychain::kNotAvailable;
    }
    int add(const KeychainAttributes&, KeychainResult*) override { return keychain::kNotAvailable; }
    int remove(const KeychainAttributes&) override { return keychain::kNotAvailable; }
};

std::string scopeOf(const DataRoot& root) {
    std::error_code error;
    auto canonical = std::filesystem::weakly_canonical(root.root(), error);
    return (error ? std::filesystem::absolute(root.root(), error) : canonical).string();
}

}  // namespace

DesktopKeychain::DesktopKeychain(const DataRoot& root, std::optional<std::filesystem::path> profile,
                                 EnvironmentLookup environment)
    : file_(root.keychainFile(), std::move(profile)),
      scope_(scopeOf(root)),
      environment_(std::move(environment)) {}

DesktopKeychain::~DesktopKeychain() = default;

Keychain* DesktopKeychain::keyring() {
    std::call_once(chosen_, [this] {
        const auto wanted = environment_("VELMORAND_KEYCHAIN").value_or("");
        if (wanted == "file") {
            return;
        }
        keyring_ = SecretServiceKeychain::connect(scope_, kBound);
        if (!keyring_) {
            if (wanted == "secret-service") {
                keyring_ = std::make_unique<UnavailableKeychain>();
            }
            return;
        }
        // An empty query matches every item.
        if (file_.copyMatching({}, nullptr) == keychain::kSuccess) {
            const int emptied = keyring_->remove({});
            if (emptied == keychain::kSuccess || emptied == keychain::kItemNotFound) {
                file_.remove({});
            } else {
                keyring_.reset();
            }
        }
    });
    return keyring_.get();
}

int DesktopKeychain::copyMatching(const KeychainAttributes& query, KeychainResult* result) {
    auto* chosen = keyring();
    return chosen != nullptr ? chosen->copyMatching(query, result)
                             : file_.copyMatching(query, result);
}

int DesktopKeychain::add(const KeychainAttributes& attributes, KeychainResult* result) {
    auto* chosen = keyring();
    if (chosen == nullptr) {
        return file_.add(attributes, result);
    }
    KeychainAttributes item = attributes;
    if (const int status = file_.assignAccessGroup(item); status != keychain::kSuccess) {
        return status;
    }
    return changed(chosen->add(item, result));
}

int DesktopKeychain::remove(const KeychainAttributes& query) {
    auto* chosen = keyring();
    return chosen != nullptr ? changed(chosen->remove(query)) : file_.remove(query);
}

int DesktopKeychain::changed(int status) {
    if (status == keychain::kNotAvailable || status == keychain::kInteractionNotAllowed) {
        file_.add({{std::string(keychain::kClass), std::string(keychain::kClassGenericPassword)},
                   {std::string(keychain::kService), std::string()},
                   {std::string(keychain::kAccount), std::string("velmorand.keyringBehind")}},
                  nullptr);
    }
    return status;
}

}  // namespace velmorand
