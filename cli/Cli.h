#pragma once

namespace velmorand::cli {

// Exit statuses every command keeps to.
inline constexpr int kExitSuccess = 0;
inline constexpr int kExitFailure = 1;
inline constexpr int kExitUsage = 2;

int run(int argc, char** argv);

}  // namespace velmorand::cli
