#include "velmorand/extension/InstanceLock.h"

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "TempDir.h"

namespace velmorand::extension {
namespace {

// What a second process sees: 0 when it got the lock, 1 when refused with the holder's id
// `expectedPid` (or none when it is 0), 2 for anything else.
int tryInChild(const std::filesystem::path& file, long expectedPid) {
    const pid_t child = ::fork();
    if (child == 0) {
        const InstanceLock lock(file);
        const auto holder = expectedPid ? std::optional(expectedPid) : std::nullopt;
        ::_exit(lock.held() ? 0 : !lock.error() && lock.holder() == holder ? 1 : 2);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(InstanceLockTest, ASecondProcessIsRefusedAndToldTheHolder) {
    testing::TempDir dir;
    const auto file = dir.path() / "broadcast.lock";
    std::ofstream(file) << "999999\n";  // a stale id without a lock does not block
    {
        const InstanceLock first(file);
        ASSERT_TRUE(first.held());
        EXPECT_FALSE(first.error());
        long pid = 0;
        std::ifstream(file) >> pid;
        EXPECT_EQ(pid, ::getpid());
        EXPECT_EQ(tryInChild(file, ::getpid()), 1);
    }
    // Released with its holder, and the id is gone with it.
    std::string content;
    EXPECT_FALSE(std::getline(std::ifstream(file) >> std::ws, content)) << content;
    EXPECT_EQ(tryInChild(file, 0), 0);
}

TEST(InstanceLockTest, AnUnusableFileIsAnErrorNotARefusal) {
    testing::TempDir dir;
    const InstanceLock lock(dir.path() / "missing" / "broadcast.lock");
    EXPECT_FALSE(lock.held());
    EXPECT_FALSE(lock.holder());
    ASSERT_TRUE(lock.error());
    EXPECT_NE(lock.error()->find("broadcast.lock"), std::string::npos);
}

}  // namespace
}  // namespace velmorand::extension
