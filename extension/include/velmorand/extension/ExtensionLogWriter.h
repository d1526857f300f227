#pragma once

#include <chrono>
#include <cstddef>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "velmorand/platform/Log.h"

namespace velmorand::extension {

// The broadcast's diagnostics log: one line per event, each prefixed with its UTC time, appended
// to a file that the application shows. The file never grows past `maxBytes`: when a line would
// take it there, the whole file becomes the previous log (`<file>.1`, replacing the one before)
// and only its newest lines (about half the bound) stay in the file. Every line is valid UTF-8
// on one line, and registered secrets never reach it. Thread-safe; failures to write are ignored.
class ExtensionLogWriter : public Log {
  public:
    using Clock = std::function<std::chrono::system_clock::time_point()>;

    static constexpr std::size_t kDefaultMaxBytes = 256 * 1024;
    static constexpr std::size_t kMaxLineBytes = 2048;
    // Shorter texts are not masked: they would garble every line and protect nothing.
    static constexpr std::size_t kMinSecretLength = 4;

    struct Options {
        std::size_t maxBytes = kDefaultMaxBytes;
        // Also receives every line as written to the file, when set.
        Log* echo = nullptr;
        // Empty: the system clock.
        Clock clock;
    };

    explicit ExtensionLogWriter(std::filesystem::path file);
    ExtensionLogWriter(std::filesystem::path file, Options options);
    ~ExtensionLogWriter() override;
    ExtensionLogWriter(const ExtensionLogWriter&) = delete;
    ExtensionLogWriter& operator=(const ExtensionLogWriter&) = delete;

    void write(std::string_view line) override;

    // Replaces `secret` by "<redacted>" in every later line.
    void addSecret(std::string secret);

    const std::filesystem::path& file() const { return file_; }

    // "2025-01-02T03:04:05.678Z".
    static std::string timestamp(std::chrono::system_clock::time_point time);
    // `line` as it is stored, without its time: control characters escaped, bytes that are not
    // UTF-8 replaced by U+FFFD, and cut with "…" past `maxBytes`.
    static std::string sanitized(std::string_view line, std::size_t maxBytes);

  private:
    void ensureOpen();
    void rotate(std::size_t incoming);
    static bool replaceFile(const std::filesystem::path& path, std::string_view content);
    std::string masked(std::string_view line) const;

    const std::filesystem::path file_;
    const std::size_t maxBytes_;
    const std::size_t maxLineBytes_;
    Log* echo_;
    Clock clock_;
    std::mutex mutex_;
    std::vector<std::string> secrets_;
    int descriptor_ = -1;
};

}  // namespace velmorand::extension
