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

}  // namespace velmorand::testing
