#pragma once

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

namespace velmorand {

// A file a viewer pushes to the device, on its way into the Downloads folder.
class PushedFile {
  public:
    static constexpr std::size_t kMaxBytes = 64 * 1024 * 1024;

    PushedFile() = delete;

    // The name it is saved under: the base name only (nothing up to the last "/" or "\"), no
    // leading dots, control characters replaced by "_", invisible format characters (bidirectional
    // overrides, zero-width spaces) removed, at most 255 bytes with the extension kept; "file"
    // when nothing is left.
    static std::string safeName(std::string_view name);

    // Standard base64, padded or not, ASCII white space ignored. Absent when malformed or when
    // it decodes to more than `maxBytes`.
    static std::optional<std::string> decodeBase64(std::string_view text,
                                                   std::size_t maxBytes = kMaxBytes);

    // Writes `bytes` to `directory`/`name`, or to "stem (2).ext", "stem (3).ext", … (the stem cut
    // short when the name would grow past 255 bytes) so that nothing is overwritten, creating the
    // directory when needed; refused when fewer than `keepFree` bytes would be left on its file
    // system. The path written, or why not.
    static std::variant<std::filesystem::path, std::string> save(
        const std::filesystem::path& directory, const std::string& name, std::string_view bytes,
        std::uintmax_t keepFree = 0);
};

}  // namespace velmorand
