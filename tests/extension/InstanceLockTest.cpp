#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>

#include "TempDir.h"
#include "velmorand/extension/InstanceLock.h"

namespace velmorand::extension {
namespace {

// What a second process sees: 0 when it got the lock, 1 when refused with the holder's id
// `expectedPid` (or none when it is 0), 2 for anything else.
int tryInChild(const std::filesystem::path& file, long expectedPid) {
    const pid_t child = ::fork();
    if (child == 0) {
        const InstanceLock lock(file);
        int status = 2;
        if (lock.held()) {
            status = 0;
        } else if (!lock.error() &&
                   lock.holder() == (expectedPid ? std::optional(expectedPid) : std::nullopt)) {
            status = 1;
        }
        ::_exit(status);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(InstanceLockTest, ASecondProcessIsRefusedAndToldTheHolder) {
    testing::TempDir dir;
    const auto file = dir.path() / "broadcast.lock";
    {
        const InstanceLock first(file);
        ASSERT_TRUE(first.held());
        EXPECT_FALSE(first.error());
        EXPECT_EQ(tryInChild(file, ::getpid()), 1);
    }
    // Released with its holder, and the stale id is gone with it.
    std::ifstream in(file);
    std::string content;
    EXPECT_FALSE(std::getline(in, content)) << content;
    EXPECT_EQ(tryInChild(file, 0), 0);
}

TEST(InstanceLockTest, AStaleIdWithoutALockDoesNotBlock) {
    testing::TempDir dir;
    const auto file = dir.path() / "broadcast.lock";
    std::ofstream(file) << "999999\n";
    const InstanceLock lock(file);
    EXPECT_TRUE(lock.held());
    std::ifstream in(file);
    long pid = 0;
    in >> pid;
    EXPECT_EQ(pid, ::getpid());
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
