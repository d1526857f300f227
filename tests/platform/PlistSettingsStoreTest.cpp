#include "velmorand/desktop/PlistSettingsStore.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <nlohmann/json.hpp>
#include <random>
#include <sstream>

#include "TempDir.h"
#include "velmorand/platform/PropertyList.h"

namespace velmorand {
namespace {

std::optional<nlohmann::json> parsedFile(const std::filesystem::path& path) {
    std::ostringstream stream;
    stream << std::ifstream(path, std::ios::binary).rdbuf();
    const auto text = stream.str();
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
    const auto contentOf = [](const std::filesystem::path& path) {
        std::ostringstream content;
        content << std::ifstream(path).rdbuf();
        return content.str();
    };
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
