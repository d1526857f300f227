#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace velmorand::testing {

struct CommandResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs `program` to completion with standard input closed and collects both output streams.
// `environment` entries ("NAME=value") are added to the inherited environment, later ones winning.
CommandResult runCommand(const std::string& program, const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment = {});

// A program left running in the background, killed when this goes.
class BackgroundProcess {
  public:
    BackgroundProcess(const std::string& program, const std::vector<std::string>& arguments);
    ~BackgroundProcess();
    BackgroundProcess(const BackgroundProcess&) = delete;
    BackgroundProcess& operator=(const BackgroundProcess&) = delete;

    // The next line of standard output (or error), without its line break; empty at the end.
    std::string readLine(bool fromError = false);

  private:
    int pid_ = -1;
    std::FILE* streams_[2] = {nullptr, nullptr};
};

}  // namespace velmorand::testing
