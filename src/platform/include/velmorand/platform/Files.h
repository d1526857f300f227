#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace velmorand {

// The whole content of the regular file at `path`. Absent when the file is missing, is not a
// regular file (a directory, a pipe, a device) or cannot be read; it never throws and never
// waits for a writer.
std::optional<std::string> readWholeFile(const std::filesystem::path& path);

}  // namespace velmorand
