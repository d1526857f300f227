// The stores the programs keep in files, the write under them, and the typed reads every settings
// store shares.
#include "velmorand/desktop/FileWrite.h"
#include "velmorand/desktop/PlistKeychain.h"
#include "velmorand/desktop/PlistSettingsStore.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <fstream>
#include <nlohmann/json.hpp>
#include <optional>
#include <random>
#include <sstream>
#include <string>

#include "InMemorySettings.h"
#include "TempDir.h"
#include "velmorand/platform/PropertyList.h"

namespace velmorand {
namespace {

namespace kc = keychain;

StoredValue text(const char* value) {
    return std::string(value);
}

// The probe item, added without a group, lands in the first group the signed profile (arbitrary
// bytes around its XML) grants; it is found from then on, and never added twice.
TEST(PlistKeychainTest, ProbeItemLandsInTheProfilesDefaultGroup) {
    const testing::TempDir dir;
    const auto profile = dir.path() / "embedded.mobileprovision";
    std::ofstream(profile, std::ios::binary)
        << std::string("\x30\x82\x00\xff\xfe<plist", 12)
        << R"(<?xml version="1.0" encoding="UTF-8"?><plist version="1.0"><dict>)"
           "<key>Entitlements</key><dict><key>keychain-access-groups</key><array>"
           "<string>TEAM1.co.velmorand.connect</string><string>TEAM1.co.velmorand.shared</string>"
           "</array></dict></dict></plist>"
        << std::string("\x00\xa0</plist>\x01", 11);
    PlistKeychain chain(dir.path() / "Keychain" / "keychain.plist", profile);
    const KeychainAttributes probe = {{"class", text("genp")},
                                      {"acct", text("velmorand.bundleSeedID")},
                                      {"svce", text("")},
                                      {"r_Attributes", true}};
    KeychainResult result;
    EXPECT_EQ(chain.copyMatching(probe, &result), kc::kItemNotFound);
    ASSERT_EQ(chain.add(probe, &result), kc::kSuccess);
    const auto attributes = std::get<KeychainAttributes>(result);
    EXPECT_EQ(attributes.at("agrp"), text("TEAM1.co.velmorand.connect"));
    EXPECT_FALSE(attributes.contains("r_Attributes"));
    KeychainResult again;
    EXPECT_EQ(chain.copyMatching(probe, &again), kc::kSuccess);
    EXPECT_EQ(again, result);
    EXPECT_EQ(chain.add(probe, nullptr), kc::kDuplicateItem);
}

// Other programs write these values too, as a string as often as a number.
TEST(SettingsStoreTest, TypedReadsGiveEveryStoredTypeOneMeaning) {
    const struct {
        std::optional<StoredValue> stored;
        bool boolean;
        std::optional<std::string> string;
    } cases[] = {
        {std::nullopt, false, std::nullopt}, {StoredValue{true}, true, "1"},
        {StoredValue{false}, false, "0"},    {StoredValue{std::int64_t{-3}}, true, "-3"},
        {StoredValue{0.25}, true, "0.25"},   {StoredValue{Bytes{'1'}}, false, std::nullopt},
        {text("true"), true, "true"},        {text("12"), true, "12"},
        {text("tRUE"), false, "tRUE"},       {text(" 1"), false, " 1"},
        {text("0.5"), false, "0.5"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        testing::InMemorySettingsStore store;
        store.setObject("key", c.stored);
        EXPECT_EQ(store.boolean("key"), c.boolean);
        EXPECT_EQ(store.string("key"), c.string);
    }
}

// A write that fails ends with false at once, never a loop that retries it; one that is read
// delivers every byte.
TEST(FileWriteTest, AFailedWriteEndsAtOnceAndAReadOneDeliversEveryByte) {
    std::signal(SIGPIPE, SIG_IGN);
    std::array<int, 2> unread{};
    ASSERT_EQ(::pipe(unread.data()), 0);
    ::close(unread[0]);
    const std::pair<const char*, int> rows[] = {{"a pipe nobody reads", unread[1]},
                                                {"no descriptor at all", -1}};
    for (const auto& [what, descriptor] : rows) {
        EXPECT_FALSE(files::writeAll(descriptor, "bytes")) << what;
    }
    ::close(unread[1]);

    std::array<int, 2> read{};
    ASSERT_EQ(::pipe(read.data()), 0);
    EXPECT_TRUE(files::writeAll(read[1], "bytes"));
    ::close(read[1]);
    std::string got(16, '\0');
    got.resize(static_cast<std::size_t>(::read(read[0], got.data(), got.size())));
    ::close(read[0]);
    EXPECT_EQ(got, "bytes");
}

std::string contentOf(const std::filesystem::path& path) {
    std::ostringstream content;
    content << std::ifstream(path, std::ios::binary).rdbuf();
    return content.str();
}

std::optional<nlohmann::json> parsedFile(const std::filesystem::path& path) {
    const auto text = contentOf(path);
    nlohmann::json tree;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    return parsePropertyList({bytes, text.size()}, tree) ? std::optional(tree) : std::nullopt;
}

unsigned modeOf(const std::filesystem::path& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
}

class PlistSettingsStoreTest : public ::testing::Test {
  protected:
    testing::TempDir dir;
    std::filesystem::path file = dir.path() / "deep" / "Preferences" / "store.plist";
};

TEST_F(PlistSettingsStoreTest, ValuesKeepTheirTypeThroughAPrivateFile) {
    const std::pair<std::string, StoredValue> values[] = {
        {"text", std::string("a<&>\"' \u00E9\u2014")},
        {"empty", std::string()},
        {"large", std::int64_t{-9'007'199'254'740'993}},
        {"real", 0.1},
        {"wholeReal", 3.0},
        {"no", false},
        {"data", Bytes{0x00, 0xFF, 0x10}},
    };
    {
        PlistSettingsStore writer(file);
        for (const auto& [key, value] : values) {
            writer.setObject(key, value);
        }
        writer.synchronize();
    }
    // Left by a signal that interrupted some earlier call: the read still ends at end of file.
    errno = EINTR;
    PlistSettingsStore reader(file);
    for (const auto& [key, value] : values) {
        EXPECT_EQ(reader.object(key), value) << key;
    }
    EXPECT_EQ(reader.object("missing"), std::nullopt);
    EXPECT_EQ(modeOf(file), 0600u);
    EXPECT_EQ(modeOf(file.string() + ".lock"), 0600u);
    EXPECT_EQ(modeOf(file.parent_path()), 0700u);
    EXPECT_EQ(modeOf(dir.path() / "deep"), 0700u);
}

// A damaged file is set aside before it is replaced; while it cannot be, it stays, and the
// changes wait for the next synchronize.
TEST_F(PlistSettingsStoreTest, ADamagedFileIsSetAsideOrKept) {
    const std::string damage = "<plist>cut off";
    const auto aside = std::filesystem::path(file.string() + ".corrupt");
    for (const bool asideBlocked : {false, true}) {
        SCOPED_TRACE(asideBlocked ? "no room beside it at first" : "set aside");
        std::filesystem::remove_all(dir.path());
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file) << damage;
        if (asideBlocked) {
            std::filesystem::create_directories(aside / "occupied");
        }
        PlistSettingsStore store(file);
        store.setObject("value", std::string("new"));
        store.synchronize();
        EXPECT_EQ(store.object("value"), StoredValue(std::string("new")));
        if (asideBlocked) {
            EXPECT_EQ(contentOf(file), damage);
            std::filesystem::remove_all(aside);
            store.synchronize();
        }
        EXPECT_EQ(contentOf(aside), damage);
        const auto tree = parsedFile(file);
        ASSERT_TRUE(tree);
        EXPECT_EQ((*tree)["value"], "new");
    }
}

TEST_F(PlistSettingsStoreTest, AWriterKilledAtAnyMomentLeavesOldOrNewContent) {
    std::mt19937 random(12345);
    const std::string padding(1 << 20, 'p');
    const auto write = [&](const char* value, const std::string& pad) {
        PlistSettingsStore store(file);
        store.setObject("value", std::string(value));
        store.setObject("padding", pad);
        store.synchronize();
    };
    for (int round = 0; round < 50; ++round) {
        write("old", padding);
        const pid_t child = ::fork();
        if (child == 0) {
            write("new", padding + "!");
            ::_exit(0);
        }
        ::usleep(std::uniform_int_distribution<useconds_t>(0, 6000)(random));
        ::kill(child, SIGKILL);
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        const auto tree = parsedFile(file);
        ASSERT_TRUE(tree) << "round " << round;
        const auto value = (*tree)["value"];
        EXPECT_TRUE(value == "old" || value == "new") << value;
        EXPECT_EQ((*tree)["padding"], value == "old" ? padding : padding + "!");
        EXPECT_EQ(modeOf(file), 0600u);
    }
}

}  // namespace
}  // namespace velmorand
