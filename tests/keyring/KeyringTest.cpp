// The keychain against a real keyring: each test runs beside a gnome-keyring-daemon of its own
// (tests/keyring/with-keyring), unlocked, on a private session bus.
#include <gtest/gtest.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

#include "ScopedEnv.h"
#include "TempDir.h"
#include "velmorand/desktop/DesktopKeychain.h"
#include "velmorand/secret/SecretServiceKeychain.h"

namespace velmorand {
namespace {

namespace kc = keychain;

const std::filesystem::path kProfile =
    std::filesystem::path(VELMORAND_DEV_BUNDLE) / "embedded.mobileprovision";
constexpr const char* kDefaultGroup = "VLMRND4DEV.co.velmorand.connect";
constexpr const char* kSharedGroup = "VLMRND4DEV.co.velmorand.shared";

EnvironmentLookup keychainChoice(std::string choice) {
    return [choice = std::move(choice)](std::string_view name) -> std::optional<std::string> {
        if (name == "VELMORAND_KEYCHAIN" && !choice.empty()) {
            return choice;
        }
        return std::nullopt;
    };
}

KeychainAttributes mirrorQuery() {
    return {{std::string(kc::kClass), std::string(kc::kClassGenericPassword)},
            {std::string(kc::kService), std::string("co.velmorand.connect.config")},
            {std::string(kc::kAccount), std::string("sharedConfig")},
            {std::string(kc::kAccessGroup), std::string(kSharedGroup)}};
}

KeychainAttributes mirrorItem(Bytes data) {
    auto item = mirrorQuery();
    item.emplace(kc::kAccessible, std::string(kc::kAccessibleAfterFirstUnlockThisDeviceOnly));
    item.emplace(kc::kValueData, std::move(data));
    return item;
}

KeychainAttributes with(KeychainAttributes attributes, std::string_view name, StoredValue value) {
    attributes.insert_or_assign(std::string(name), std::move(value));
    return attributes;
}

// A command's standard output, and whether it exited 0.
std::pair<std::string, bool> run(const std::string& command) {
    std::string out;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (pipe == nullptr) {
        return {"", false};
    }
    char buffer[4096];
    for (std::size_t read; (read = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;) {
        out.append(buffer, read);
    }
    return {out, ::pclose(pipe) == 0};
}

// The same rules, whichever store holds the items; only the file backend writes a file.
TEST(KeyringTest, BothStoresKeepTheSameRules) {
    for (const std::string backend : {"file", "secret-service"}) {
        SCOPED_TRACE(backend);
        const testing::TempDir dir;
        const DataRoot root(dir.path());
        DesktopKeychain chain(root, kProfile, keychainChoice(backend));

        const KeychainAttributes probe = {
            {std::string(kc::kClass), std::string(kc::kClassGenericPassword)},
            {std::string(kc::kAccount), std::string("velmorand.bundleSeedID")},
            {std::string(kc::kService), std::string()},
            {std::string(kc::kReturnAttributes), true}};
        KeychainResult added;
        ASSERT_EQ(chain.add(probe, &added), kc::kSuccess);
        const auto* attributes = std::get_if<KeychainAttributes>(&added);
        ASSERT_NE(attributes, nullptr);
        EXPECT_EQ(attributes->at(std::string(kc::kAccessGroup)), StoredValue(kDefaultGroup));
        EXPECT_EQ(chain.add(probe, nullptr), kc::kDuplicateItem);

        // Binary data comes back byte for byte.
        const Bytes data = {'{', 0x00, 0xff, 0xfe, '}'};
        ASSERT_EQ(chain.add(mirrorItem(data), nullptr), kc::kSuccess);
        EXPECT_EQ(chain.add(mirrorItem({}), nullptr), kc::kDuplicateItem);
        KeychainResult read;
        ASSERT_EQ(chain.copyMatching(with(mirrorQuery(), kc::kReturnData, true), &read),
                  kc::kSuccess);
        EXPECT_EQ(std::get<Bytes>(read), data);
        KeychainResult described;
        ASSERT_EQ(chain.copyMatching(with(mirrorQuery(), kc::kReturnAttributes, true), &described),
                  kc::kSuccess);
        EXPECT_EQ(std::get<KeychainAttributes>(described).at(std::string(kc::kAccessible)),
                  StoredValue(std::string(kc::kAccessibleAfterFirstUnlockThisDeviceOnly)));
        EXPECT_EQ(std::get<KeychainAttributes>(described).count(std::string(kc::kValueData)), 0u);

        const std::tuple<const char*, KeychainAttributes, int> lookups[] = {
            {"another account", with(mirrorQuery(), kc::kAccount, std::string("other")),
             kc::kItemNotFound},
            {"another group", with(mirrorQuery(), kc::kAccessGroup, std::string("X.other")),
             kc::kItemNotFound},
            {"the service alone",
             {{std::string(kc::kService), std::string("co.velmorand.connect.config")}},
             kc::kSuccess},
        };
        for (const auto& [what, query, status] : lookups) {
            SCOPED_TRACE(what);
            EXPECT_EQ(chain.copyMatching(query, nullptr), status);
        }

        EXPECT_EQ(chain.add(with(mirrorItem(data), kc::kAccessGroup, std::string("SOMEONE.else")),
                            nullptr),
                  kc::kMissingEntitlement);
        EXPECT_EQ(chain.remove(mirrorQuery()), kc::kSuccess);
        EXPECT_EQ(chain.copyMatching(mirrorQuery(), nullptr), kc::kItemNotFound);
        EXPECT_EQ(chain.remove(mirrorQuery()), kc::kItemNotFound);

        EXPECT_EQ(std::filesystem::exists(root.keychainFile()), backend == "file");
    }
}

TEST(KeyringTest, WithoutAProfileNothingIsAdded) {
    const testing::TempDir dir;
    DesktopKeychain chain(DataRoot(dir.path()), std::nullopt, keychainChoice("secret-service"));
    EXPECT_EQ(chain.add(mirrorItem({'x'}), nullptr), kc::kMissingEntitlement);
    EXPECT_EQ(chain.copyMatching(mirrorQuery(), nullptr), kc::kItemNotFound);
}

// One user's keyring holds every installation's items; each sees its own only.
TEST(KeyringTest, DataDirectoriesKeepTheirOwnItems) {
    const testing::TempDir first;
    const testing::TempDir second;
    DesktopKeychain one(DataRoot(first.path()), kProfile, keychainChoice("secret-service"));
    DesktopKeychain other(DataRoot(second.path()), kProfile, keychainChoice("secret-service"));
    ASSERT_EQ(one.add(mirrorItem({'1'}), nullptr), kc::kSuccess);
    EXPECT_EQ(other.copyMatching(mirrorQuery(), nullptr), kc::kItemNotFound);
    EXPECT_EQ(other.remove(mirrorQuery()), kc::kItemNotFound);
    ASSERT_EQ(other.add(mirrorItem({'2'}), nullptr), kc::kSuccess);
    KeychainResult read;
    ASSERT_EQ(one.copyMatching(with(mirrorQuery(), kc::kReturnData, true), &read), kc::kSuccess);
    EXPECT_EQ(std::get<Bytes>(read), Bytes{'1'});
}

// The keyring chosen after the file was used: both copies may be out of date, so neither is
// kept, and the configuration rebuilds the mirror from its other stores.
TEST(KeyringTest, ChoosingTheKeyringAfterTheFileEmptiesBoth) {
    const testing::TempDir dir;
    const DataRoot root(dir.path());
    DesktopKeychain earlierKeyring(root, kProfile, keychainChoice("secret-service"));
    ASSERT_EQ(earlierKeyring.add(mirrorItem({'o', 'l', 'd'}), nullptr), kc::kSuccess);
    DesktopKeychain file(root, kProfile, keychainChoice("file"));
    ASSERT_EQ(file.add(mirrorItem({'n', 'e', 'w'}), nullptr), kc::kSuccess);

    DesktopKeychain later(root, kProfile, keychainChoice(""));
    EXPECT_EQ(later.copyMatching(mirrorQuery(), nullptr), kc::kItemNotFound);
    EXPECT_EQ(file.copyMatching(mirrorQuery(), nullptr), kc::kItemNotFound);

    // Used on, the keyring alone holds what is added.
    ASSERT_EQ(later.add(mirrorItem({'k'}), nullptr), kc::kSuccess);
    DesktopKeychain again(root, kProfile, keychainChoice(""));
    EXPECT_EQ(again.copyMatching(mirrorQuery(), nullptr), kc::kSuccess);
    EXPECT_EQ(file.copyMatching(mirrorQuery(), nullptr), kc::kItemNotFound);
}

// The keyring's bus is found without an address too, where the desktop's own session bus listens:
// the runtime directory's "bus". Without either there is no keyring to use, and no bus is launched
// to look for one.
TEST(KeyringTest, TheSessionBusIsFoundByItsAddressOrInTheRuntimeDirectory) {
    const std::string address = std::getenv("DBUS_SESSION_BUS_ADDRESS") != nullptr
                                    ? std::getenv("DBUS_SESSION_BUS_ADDRESS")
                                    : "";
    const std::string prefix = "unix:path=";
    ASSERT_TRUE(address.starts_with(prefix)) << "run under tests/keyring/with-keyring: " << address;
    const testing::TempDir withBus;
    const testing::TempDir withoutBus;
    std::filesystem::create_symlink(
        address.substr(prefix.size(), address.find(',') - prefix.size()), withBus.path() / "bus");
    const struct {
        const char* address;
        const char* runtimeDir;
        bool found;
    } rows[] = {
        {nullptr, withBus.path().c_str(), true},
        {nullptr, withoutBus.path().c_str(), false},
        {nullptr, nullptr, false},
        {address.c_str(), nullptr, true},
    };
    for (const auto& row : rows) {
        const testing::ScopedEnv bus("DBUS_SESSION_BUS_ADDRESS", row.address);
        const testing::ScopedEnv runtime("XDG_RUNTIME_DIR", row.runtimeDir);
        EXPECT_EQ(SecretServiceKeychain::connect("scope", std::chrono::seconds(2)) != nullptr,
                  row.found)
            << (row.address != nullptr ? row.address : "no address") << ", "
            << (row.runtimeDir != nullptr ? row.runtimeDir : "no runtime directory");
    }
}

// A locked keyring is never unlocked from here (that would ask the person for a password): a
// keychain chosen later uses the file, one already on the keyring says it is locked.
TEST(KeyringTest, ALockedKeyringIsLeftAlone) {
    const testing::TempDir dir;
    const DataRoot root(dir.path());
    DesktopKeychain before(root, kProfile, keychainChoice(""));
    ASSERT_EQ(before.add(mirrorItem({'x'}), nullptr), kc::kSuccess);

    const auto [out, locked] =
        run("gdbus call --session --dest org.freedesktop.secrets --object-path "
            "/org/freedesktop/secrets --method org.freedesktop.Secret.Service.Lock "
            "\"['/org/freedesktop/secrets/collection/login']\"");
    ASSERT_TRUE(locked) << out;

    EXPECT_EQ(before.copyMatching(mirrorQuery(), nullptr), kc::kInteractionNotAllowed);
    EXPECT_EQ(before.remove(mirrorQuery()), kc::kInteractionNotAllowed);
    EXPECT_EQ(SecretServiceKeychain::connect("scope", std::chrono::seconds(2)), nullptr);
    DesktopKeychain after(root, kProfile, keychainChoice(""));
    EXPECT_EQ(after.add(mirrorItem({'y'}), nullptr), kc::kSuccess);
    EXPECT_TRUE(std::filesystem::exists(root.keychainFile()));
}

// A removal the keyring did not carry out is not forgotten: the next program to choose the keyring
// empties it rather than read back what was removed.
TEST(KeyringTest, ARemovalTheKeyringMissedIsCaughtUpOn) {
    const char* pid = std::getenv("VELMORAND_TEST_KEYRING_PID");
    ASSERT_NE(pid, nullptr) << "run under tests/keyring/with-keyring";
    const testing::TempDir dir;
    const DataRoot root(dir.path());
    DesktopKeychain unlucky(root, kProfile, keychainChoice(""));
    ASSERT_EQ(unlucky.add(mirrorItem({'x'}), nullptr), kc::kSuccess);

    ASSERT_EQ(::kill(std::atoi(pid), SIGSTOP), 0);
    EXPECT_EQ(unlucky.remove(mirrorQuery()), kc::kNotAvailable);
    ASSERT_EQ(::kill(std::atoi(pid), SIGCONT), 0);

    DesktopKeychain later(root, kProfile, keychainChoice(""));
    EXPECT_EQ(later.copyMatching(mirrorQuery(), nullptr), kc::kItemNotFound);
    // The note that the keyring fell behind went with it.
    DesktopKeychain file(root, kProfile, keychainChoice("file"));
    EXPECT_EQ(file.copyMatching({}, nullptr), kc::kItemNotFound);
}

// A service that stops answering costs one bound, not one per call, and never a hang.
TEST(KeyringTest, AServiceThatStopsAnsweringIsGivenUp) {
    const char* pid = std::getenv("VELMORAND_TEST_KEYRING_PID");
    ASSERT_NE(pid, nullptr) << "run under tests/keyring/with-keyring";
    auto chain = SecretServiceKeychain::connect("scope", std::chrono::milliseconds(300));
    ASSERT_NE(chain, nullptr);
    ASSERT_EQ(
        chain->add(with(mirrorItem({'x'}), kc::kAccessGroup, std::string(kSharedGroup)), nullptr),
        kc::kSuccess);

    ASSERT_EQ(::kill(std::atoi(pid), SIGSTOP), 0);
    EXPECT_EQ(chain->copyMatching(mirrorQuery(), nullptr), kc::kNotAvailable);
    ASSERT_EQ(::kill(std::atoi(pid), SIGCONT), 0);
    EXPECT_EQ(chain->copyMatching(mirrorQuery(), nullptr), kc::kNotAvailable);
}

// As a person would find it: the configuration a program saves is an item of the keyring, found
// by its service and account, and no keychain file is written.
TEST(KeyringTest, TheConfigurationMirrorIsAKeyringItem) {
    const testing::TempDir dir;
    const auto [saved, ok] = run(std::string(VELMORAND_CLI) + " --data-dir " + dir.path().string() +
                                 " encode --fps 24 2>&1");
    ASSERT_TRUE(ok) << saved;
    const auto [mirror, found] =
        run("secret-tool lookup service co.velmorand.connect.config account sharedConfig");
    ASSERT_TRUE(found);
    EXPECT_NE(mirror.find("\"fps\":24"), std::string::npos) << mirror;
    EXPECT_FALSE(std::filesystem::exists(DataRoot(dir.path()).keychainFile()));
}

}  // namespace
}  // namespace velmorand
