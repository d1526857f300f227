#pragma once

#include <filesystem>
#include <string>

namespace velmorand::files {

enum class ReadStatus { ok, missing, unreadable };

// Reads the regular file at `path` whole into `out`. Anything but a regular file is unreadable;
// opening never blocks (a pipe).
ReadStatus readRegularFile(const std::filesystem::path& path, std::string& out);

}  // namespace velmorand::files
