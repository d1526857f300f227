#include "velmorand/desktop/FileWrite.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <string>

namespace velmorand {
namespace {

// A write that fails ends with false at once, never a loop that retries it; one that is read
// delivers every byte.
TEST(FileWriteTest, AFailedWriteEndsAtOnceAndAReadOneDeliversEveryByte) {
    std::signal(SIGPIPE, SIG_IGN);
    std::array<int, 2> unread{};
    ASSERT_EQ(::pipe(unread.data()), 0);
    ::close(unread[0]);
    const struct {
        const char* what;
        int descriptor;
    } rows[] = {
        {"a pipe nobody reads", unread[1]},
        {"no descriptor at all", -1},
    };
    for (const auto& row : rows) {
        EXPECT_FALSE(files::writeAll(row.descriptor, "bytes")) << row.what;
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

}  // namespace
}  // namespace velmorand
