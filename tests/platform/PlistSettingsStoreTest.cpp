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
#include "velmorand/platform/PropertyList.h"

namespace velmorand {
namespace {

std::string readText(const std::filesystem::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

std::optional<nlohmann::json> parsedFile(const std::filesystem::path& path) {
    const auto text = readText(path);
    nlohmann::json tree;
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(text.data());
    return parsePropertyList({bytes, text.size()}, tree) ? std::optional(tree) : std::nullopt;
}

unsigned modeOf(const std::filesystem::path& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0) << path;
    return info.st_mode & 07777;
}

// Runs `body` in a child process and returns its id.
template <typename Body>
pid_t spawn(Body body) {
    const pid_t child = ::fork();
    if (child == 0) {
        body();
        ::_exit(0);
    }
    return child;
}

StoredValue text(const char* value) {
    return std::string(value);
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

TEST_F(PlistSettingsStoreTest, WritersOfDifferentKeysKeepEachOthersValues) {
    PlistSettingsStore a(file);
    PlistSettingsStore b(file);
    EXPECT_EQ(a.object("x"), std::nullopt);
    EXPECT_EQ(b.object("y"), std::nullopt);
    a.setInteger("x", 1);
    b.setInteger("y", 2);
    a.synchronize();
    b.synchronize();
    EXPECT_EQ(PlistSettingsStore(file).object("x"), StoredValue{std::int64_t{1}});
    EXPECT_EQ(PlistSettingsStore(file).object("y"), StoredValue{std::int64_t{2}});
}

TEST_F(PlistSettingsStoreTest, DamagedFileReadsEmptyAndIsSetAside) {
    std::filesystem::create_directories(file.parent_path());
    for (const std::string damaged : {"<?xml garbage", "<plist><array/></plist>", ""}) {
        std::ofstream(file) << damaged;
        PlistSettingsStore store(file);
        EXPECT_EQ(store.object("anything"), std::nullopt) << damaged;
        store.setObject("k", text("v"));
        store.synchronize();
        EXPECT_EQ(readText(file.string() + ".corrupt"), damaged);
        EXPECT_EQ(parsedFile(file), nlohmann::json({{"k", "v"}})) << damaged;
    }
}

TEST_F(PlistSettingsStoreTest, TwoProcessesWritingDisjointKeysLoseNothing) {
    constexpr int kWrites = 500;
    const auto writer = [&](std::string prefix) {
        return spawn([&, prefix] {
            PlistSettingsStore store(file);
            for (int i = 0; i < kWrites; ++i) {
                store.setInteger(prefix + std::to_string(i), i);
                store.synchronize();
            }
        });
    };
    for (const pid_t child : {writer("a"), writer("b")}) {
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
    const auto write = [&](const char* value, const std::string& pad) {
        PlistSettingsStore store(file);
        store.setObject("value", std::string(value));
        store.setObject("padding", pad);
        store.synchronize();
    };
    for (int round = 0; round < 50; ++round) {
        write("old", padding);
        const pid_t child = spawn([&] { write("new", padding + "!"); });
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

TEST(DataRootTest, ResolvesInOrderOfPrecedence) {
    using Environment = std::map<std::string, std::string, std::less<>>;
    const Environment all = {
        {"VELMORAND_DATA_DIR", "/env"}, {"XDG_DATA_HOME", "/xdg"}, {"HOME", "/home/u"}};
    const std::tuple<std::optional<std::filesystem::path>, Environment, const char*> cases[] = {
        {"/opt", all, "/opt"},
        {std::nullopt, all, "/env"},
        {std::nullopt, {{"VELMORAND_DATA_DIR", ""}, {"XDG_DATA_HOME", "/xdg"}}, "/xdg/velmorand"},
        {std::nullopt, {{"XDG_DATA_HOME", "rel"}, {"HOME", "/h"}}, "/h/.local/share/velmorand"},
    };
    for (const auto& [dataDir, environment, expected] : cases) {
        const auto lookup = [&](std::string_view name) -> std::optional<std::string> {
            const auto it = environment.find(name);
            return it == environment.end() ? std::nullopt : std::optional(it->second);
        };
        EXPECT_EQ(DataRoot::resolve(dataDir, lookup).root(), expected) << expected;
    }
    EXPECT_EQ(DataRoot("/r").keychainFile(), "/r/Keychain/keychain.plist");
}

}  // namespace
}  // namespace velmorand
