#include "velmorand/remote/PushedFile.h"

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include "velmorand/platform/Text.h"

namespace velmorand {
namespace {

constexpr std::size_t kMaxNameBytes = 255;
// Past this many taken names, something else is wrong.
constexpr int kMaxSuffix = 9999;

// Cuts `text` to at most `bytes` without splitting a UTF-8 sequence.
std::string cutUtf8(std::string text, std::size_t bytes) {
    if (text.size() <= bytes) {
        return text;
    }
    std::size_t end = bytes;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0U) == 0x80U) {
        --end;
    }
    text.resize(end);
    return text;
}

int base64Value(char c) {
    if (c >= 'A' && c <= 'Z') {
        return c - 'A';
    }
    if (c >= 'a' && c <= 'z') {
        return c - 'a' + 26;
    }
    if (c >= '0' && c <= '9') {
        return c - '0' + 52;
    }
    return c == '+' ? 62 : c == '/' ? 63 : -1;
}

}  // namespace

std::string PushedFile::safeName(std::string_view name) {
    const auto slash = name.find_last_of("/\\");
    std::string base(slash == std::string_view::npos ? name : name.substr(slash + 1));
    base.erase(0, base.find_first_not_of('.'));
    for (char& c : base) {
        if (static_cast<unsigned char>(c) < 0x20 || c == 0x7F) {
            c = '_';
        }
    }
    base = isValidUtf8(base) ? withoutInvisibleCharacters(base) : "file";
    base.erase(0, base.find_first_not_of('.'));
    if (base.size() > kMaxNameBytes) {
        const auto dot = base.rfind('.');
        const std::string extension =
            dot != std::string::npos && base.size() - dot <= 16 ? base.substr(dot) : "";
        base = cutUtf8(base.substr(0, base.size() - extension.size()),
                       kMaxNameBytes - extension.size()) +
               extension;
    }
    return base.empty() ? "file" : base;
}

std::optional<std::string> PushedFile::decodeBase64(std::string_view text, std::size_t maxBytes) {
    std::string bytes;
    std::uint32_t accumulated = 0;
    int bits = 0;
    std::size_t padding = 0;
    for (const char c : text) {
        if (c == ' ' || c == '\n' || c == '\r' || c == '\t') {
            continue;
        }
        if (c == '=') {
            ++padding;
            continue;
        }
        const int value = base64Value(c);
        // Nothing but padding may follow padding.
        if (value < 0 || padding > 0) {
            return std::nullopt;
        }
        accumulated = (accumulated << 6U) | static_cast<std::uint32_t>(value);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            if (bytes.size() == maxBytes) {
                return std::nullopt;
            }
            bytes.push_back(
                static_cast<char>((accumulated >> static_cast<unsigned>(bits)) & 0xFFU));
        }
    }
    // A lone sixth of a byte, or more padding than the last group lacks, is not base64; nor
    // are leftover bits that are not zero.
    const bool leftoverClean = (accumulated & ((1U << static_cast<unsigned>(bits)) - 1U)) == 0;
    if (bits == 6 || !leftoverClean || padding > 2 ||
        (padding > 0 && padding != (bits == 4   ? 2U
                                    : bits == 2 ? 1U
                                                : 3U))) {
        return std::nullopt;
    }
    return bytes;
}

std::variant<std::filesystem::path, std::string> PushedFile::save(
    const std::filesystem::path& directory, const std::string& name, std::string_view bytes,
    std::uintmax_t keepFree) {
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) {
        return "cannot make " + directory.string() + ": " + error.message();
    }
    const auto space = std::filesystem::space(directory, error);
    if (error) {
        return "cannot tell the free space of " + directory.string() + ": " + error.message();
    }
    if (space.available < keepFree || space.available - keepFree < bytes.size()) {
        return "it would leave less than " + std::to_string(keepFree / (1024 * 1024)) +
               " MiB free on the disk of " + directory.string();
    }
    const std::filesystem::path plain(name);
    const std::string stem = plain.stem().string();
    const std::string extension = plain.extension().string();
    for (int suffix = 1; suffix <= kMaxSuffix; ++suffix) {
        const std::string tail = " (" + std::to_string(suffix) + ")" + extension;
        const auto path =
            directory /
            (suffix == 1
                 ? name
                 : cutUtf8(stem, kMaxNameBytes - std::min(kMaxNameBytes, tail.size())) + tail);
        // "x": created here or not at all, so a file that appears meanwhile is never overwritten.
        std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen(path.c_str(), "wbx"),
                                                             &std::fclose);
        if (!file) {
            if (errno == EEXIST) {
                continue;
            }
            return "cannot write " + path.string() + ": " + std::strerror(errno);
        }
        if (std::fwrite(bytes.data(), 1, bytes.size(), file.get()) != bytes.size() ||
            std::fflush(file.get()) != 0) {
            const std::string why = std::strerror(errno);
            file.reset();
            std::filesystem::remove(path, error);
            return "cannot write " + path.string() + ": " + why;
        }
        return path;
    }
    return "too many files named " + name + " in " + directory.string();
}

}  // namespace velmorand
