#pragma once

#include <string>
#include <vector>

namespace velmorand::testing {

struct CommandResult {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// Runs `program` with `arguments` to completion, with standard input closed, and collects both
// output streams. `environment` entries ("NAME=value") are added to the inherited environment.
CommandResult runCommand(const std::string& program, const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment = {});

// A program left running in the background, stopped (SIGTERM, then SIGKILL) when this goes.
class BackgroundProcess {
  public:
    BackgroundProcess(const std::string& program, const std::vector<std::string>& arguments);
    ~BackgroundProcess();
    BackgroundProcess(const BackgroundProcess&) = delete;
    BackgroundProcess& operator=(const BackgroundProcess&) = delete;

    // The next line the program writes on its standard output (or standard error), without
    // the line break; empty once the stream has ended.
    std::string readLine();
    std::string readErrorLine();

  private:
    static std::string readLineFrom(int descriptor, std::string& buffer);

    int pid_ = -1;
    int out_ = -1;
    int err_ = -1;
    std::string outBuffer_;
    std::string errBuffer_;
};

}  // namespace velmorand::testing
