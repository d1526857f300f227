#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace velmorand::testing {

struct CommandResult {
    int exitCode = -1;  // -1 when it did not exit by itself
    std::string out;
    std::string err;
};

// Runs `program` to completion with standard input closed and collects both output streams,
// turning this thread's event loop meanwhile so that an in-process sandbox can answer it.
// `environment` entries ("NAME=value") are added to the inherited environment, later ones winning.
CommandResult runCommand(const std::string& program, const std::vector<std::string>& arguments,
                         const std::vector<std::string>& environment = {});

// The velmorand program on the stores under `dataDir`, asking the service at `serviceUrl` when one
// is given, with the bundle in `bundleDir` (empty: the development bundle).
CommandResult runVelmorand(const std::filesystem::path& dataDir, std::vector<std::string> arguments,
                           const std::string& serviceUrl = {},
                           const std::filesystem::path& bundleDir = {},
                           const std::vector<std::string>& environment = {});

}  // namespace velmorand::testing
