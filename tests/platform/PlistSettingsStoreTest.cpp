#include "velmorand/desktop/PlistSettingsStore.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "TempDir.h"
#include "velmorand/desktop/DataRoot.h"
#include "velmorand/desktop/DesktopSettingsStores.h"
#include "velmorand/platform/PropertyList.h"

namespace velmorand {
namespace {

using testing::TempDir;

std::string readText(const std::filesystem::path& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

void writeText(const std::filesystem::path& path, std::string_view text) {
    std::filesystem::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
}

std::optional<nlohmann::json> parsedFile(const std::filesystem::path& path) {
    const auto text = readText(path);
    nlohmann::json tree;
    if (!parsePropertyList({reinterpret_cast<const std::uint8_t*>(text.data()), text.size()},
                           tree)) {
        return std::nullopt;
    }
    return tree;
}

unsigned modeOf(const std::filesystem::path& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
}

class PlistSettingsStoreTest : public ::testing::Test {
  protected:
    TempDir dir;
    std::filesystem::path file = dir.path() / "deep" / "Preferences" / "store.plist";
};

TEST_F(PlistSettingsStoreTest, ValuesKeepTheirTypeThroughTheFile) {
    const std::pair<std::string, StoredValue> values[] = {
        {"text", std::string("a<&>\"' \u00E9\u2014")},
        {"empty", std::string()},
        {"negative", std::int64_t{-42}},
        {"large", std::int64_t{9'007'199'254'740'993}},
        {"real", 0.1},
        {"wholeReal", 3.0},
        {"yes", true},
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
    PlistSettingsStore reader(file);
    for (const auto& [key, value] : values) {
        EXPECT_EQ(reader.object(key), value) << key;
    }
    EXPECT_EQ(reader.object("missing"), std::nullopt);
}

TEST_F(PlistSettingsStoreTest, ChangesStayPrivateUntilSynchronized) {
    PlistSettingsStore a(file);
    PlistSettingsStore b(file);
    a.setObject("k", std::string("old"));
    a.synchronize();
    EXPECT_EQ(b.object("k"), StoredValue{std::string("old")});  // first access loads

    a.setObject("k", std::string("new"));
    EXPECT_EQ(a.object("k"), StoredValue{std::string("new")});
    EXPECT_EQ(PlistSettingsStore(file).object("k"), StoredValue{std::string("old")});
    a.synchronize();
    EXPECT_EQ(b.object("k"), StoredValue{std::string("old")});  // as b last loaded it
    b.synchronize();
    EXPECT_EQ(b.object("k"), StoredValue{std::string("new")});

    a.remove("k");
    EXPECT_EQ(a.object("k"), std::nullopt);
    a.synchronize();
    b.synchronize();
    EXPECT_EQ(b.object("k"), std::nullopt);
    EXPECT_EQ(PlistSettingsStore(file).object("k"), std::nullopt);
}

TEST_F(PlistSettingsStoreTest, WritersOfDifferentKeysKeepEachOthersValues) {
    PlistSettingsStore a(file);
    PlistSettingsStore b(file);
    EXPECT_EQ(a.object("x"), std::nullopt);
    EXPECT_EQ(b.object("y"), std::nullopt);
    a.setInteger("x", 1);
    b.setInteger("y", 2);
    a.synchronize();
    b.synchronize();
    PlistSettingsStore fresh(file);
    EXPECT_EQ(fresh.object("x"), StoredValue{std::int64_t{1}});
    EXPECT_EQ(fresh.object("y"), StoredValue{std::int64_t{2}});
}

TEST_F(PlistSettingsStoreTest, OtherPropertyListTypesReadAbsentAndSurvive) {
    writeText(file, R"(<?xml version="1.0" encoding="UTF-8"?>
<plist version="1.0"><dict>
  <key>list</key><array><string>kept</string></array>
  <key>when</key><date>2024-05-06T07:08:09Z</date>
  <key>plain</key><string>p</string>
</dict></plist>)");
    PlistSettingsStore store(file);
    EXPECT_EQ(store.object("list"), std::nullopt);
    EXPECT_EQ(store.object("when"), std::nullopt);
    EXPECT_EQ(store.object("plain"), StoredValue{std::string("p")});
    store.setBool("flag", true);
    store.synchronize();
    const auto tree = parsedFile(file);
    ASSERT_TRUE(tree);
    EXPECT_EQ((*tree)["list"], nlohmann::json::array({"kept"}));
    EXPECT_EQ((*tree)["when"], "2024-05-06T07:08:09Z");
    EXPECT_EQ((*tree)["flag"], true);
}

TEST_F(PlistSettingsStoreTest, DamagedFileReadsEmptyAndIsSetAside) {
    for (const std::string damaged : {"<?xml garbage", "<plist><array/></plist>", ""}) {
        std::filesystem::remove(file.string() + ".corrupt");
        writeText(file, damaged);
        PlistSettingsStore store(file);
        EXPECT_EQ(store.object("anything"), std::nullopt) << damaged;
        store.setObject("k", std::string("v"));
        store.synchronize();
        ASSERT_TRUE(std::filesystem::exists(file.string() + ".corrupt")) << damaged;
        EXPECT_EQ(readText(file.string() + ".corrupt"), damaged);
        const auto tree = parsedFile(file);
        ASSERT_TRUE(tree) << damaged;
        EXPECT_EQ(*tree, nlohmann::json({{"k", "v"}}));
    }
}

TEST_F(PlistSettingsStoreTest, FilesArePrivate) {
    PlistSettingsStore store(file);
    store.setObject("k", std::string("v"));
    store.synchronize();
    EXPECT_EQ(modeOf(file), 0600u);
    EXPECT_EQ(modeOf(file.string() + ".lock"), 0600u);
    EXPECT_EQ(modeOf(file.parent_path()), 0700u);
    EXPECT_EQ(modeOf(dir.path() / "deep"), 0700u);
}

// Runs `body` in a child process and returns its exit status.
template <typename Body>
pid_t spawn(Body body) {
    const pid_t child = ::fork();
    if (child == 0) {
        body();
        ::_exit(0);
    }
    return child;
}

TEST_F(PlistSettingsStoreTest, TwoProcessesWritingDisjointKeysLoseNothing) {
    constexpr int kWrites = 500;
    auto writer = [&](const char* prefix) {
        return spawn([&, prefix] {
            PlistSettingsStore store(file);
            for (int i = 0; i < kWrites; ++i) {
                store.setInteger(prefix + std::to_string(i), i);
                store.synchronize();
            }
        });
    };
    const pid_t first = writer("a");
    const pid_t second = writer("b");
    for (const pid_t child : {first, second}) {
        int status = 0;
        ASSERT_EQ(::waitpid(child, &status, 0), child);
        ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    }
    PlistSettingsStore store(file);
    for (int i = 0; i < kWrites; ++i) {
        EXPECT_EQ(store.object("a" + std::to_string(i)), StoredValue{std::int64_t{i}});
        EXPECT_EQ(store.object("b" + std::to_string(i)), StoredValue{std::int64_t{i}});
    }
}

TEST_F(PlistSettingsStoreTest, AWriterKilledAtAnyMomentLeavesOldOrNewContent) {
    std::mt19937 random(12345);
    const std::string padding(1 << 20, 'p');
    for (int round = 0; round < 50; ++round) {
        {
            PlistSettingsStore reset(file);
            reset.setObject("value", std::string("old"));
            reset.setObject("padding", padding);
            reset.synchronize();
        }
        const pid_t child = spawn([&] {
            PlistSettingsStore store(file);
            store.setObject("value", std::string("new"));
            store.setObject("padding", padding + "!");
            store.synchronize();
        });
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

TEST(DesktopSettingsStoresTest, OpensTheGroupSuiteOnceAndNoOther) {
    TempDir dir;
    const DataRoot root(dir.path());
    DesktopSettingsStores stores(root);
    auto group = stores.suite("group.co.velmorand.connect");
    ASSERT_NE(group, nullptr);
    EXPECT_EQ(stores.suite("group.co.velmorand.connect"), group);
    EXPECT_EQ(stores.suite("group.co.velmorand.other"), nullptr);
    EXPECT_EQ(stores.suite("co.velmorand.connect"), nullptr);

    group->setObject("g", std::string("group"));
    group->synchronize();
    stores.standard().setObject("s", std::string("standard"));
    stores.standard().synchronize();
    EXPECT_EQ(PlistSettingsStore(dir.path() / "Group Containers" / "group.co.velmorand.connect" /
                                 "Library" / "Preferences" / "group.co.velmorand.connect.plist")
                  .object("g"),
              StoredValue{std::string("group")});
    EXPECT_EQ(
        PlistSettingsStore(dir.path() / "Preferences" / "co.velmorand.connect.plist").object("s"),
        StoredValue{std::string("standard")});
}

TEST(DataRootTest, ResolvesInOrderOfPrecedence) {
    struct Case {
        const char* label;
        std::optional<std::filesystem::path> dataDir;
        std::map<std::string, std::string> environment;
        std::filesystem::path expected;
    };
    const std::map<std::string, std::string> all = {
        {"VELMORAND_DATA_DIR", "/env"}, {"XDG_DATA_HOME", "/xdg"}, {"HOME", "/home/u"}};
    const Case cases[] = {
        {"option wins", "/opt", all, "/opt"},
        {"environment next", std::nullopt, all, "/env"},
        {"xdg next",
         std::nullopt,
         {{"VELMORAND_DATA_DIR", ""}, {"XDG_DATA_HOME", "/xdg"}, {"HOME", "/home/u"}},
         "/xdg/velmorand"},
        {"relative xdg ignored",
         std::nullopt,
         {{"XDG_DATA_HOME", "rel"}, {"HOME", "/home/u"}},
         "/home/u/.local/share/velmorand"},
        {"home last", std::nullopt, {{"HOME", "/home/u"}}, "/home/u/.local/share/velmorand"},
    };
    for (const auto& c : cases) {
        const auto lookup = [&](std::string_view name) -> std::optional<std::string> {
            const auto it = c.environment.find(std::string(name));
            return it == c.environment.end() ? std::nullopt : std::optional(it->second);
        };
        EXPECT_EQ(DataRoot::resolve(c.dataDir, lookup).root(), c.expected) << c.label;
    }
    const DataRoot root("/r");
    EXPECT_EQ(root.keychainFile(), "/r/Keychain/keychain.plist");
}

}  // namespace
}  // namespace velmorand
