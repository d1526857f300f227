#pragma once

#include <filesystem>
#include <string_view>

namespace velmorand::files {

// Writes all of `bytes` to a blocking `descriptor`, through interruptions and short writes.
bool writeAll(int descriptor, std::string_view bytes);

// `path` with `suffix` appended to its last component: "a.plist" and ".lock" give "a.plist.lock".
std::filesystem::path withSuffix(const std::filesystem::path& path, std::string_view suffix);

// Writes `bytes` to a temp file beside `path` (mode 0600), then renames it over `path`: readers
// see the old or the new file, never a part. The temp name is fixed, so writers of one file take
// turns (a lock, or a single writer); a temp left by a killed writer is simply replaced.
// `synced` waits for the disk, for what must survive a power cut; a state that dies with its
// process need not.
enum class Durability { synced, unsynced };
bool replaceAtomically(const std::filesystem::path& path, std::string_view bytes,
                       Durability durability = Durability::synced);

// Creates the missing directories of `directory` with mode 0700.
bool makeDirectories(const std::filesystem::path& directory);

}  // namespace velmorand::files
