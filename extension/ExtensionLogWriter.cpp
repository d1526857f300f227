#include "velmorand/extension/ExtensionLogWriter.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <ctime>

#include "velmorand/desktop/FileWrite.h"

namespace velmorand::extension {
namespace {

constexpr std::string_view kRedacted = "<redacted>";
constexpr std::string_view kEllipsis = "…";
constexpr std::string_view kReplacement = "\xEF\xBF\xBD";

std::string readAll(int descriptor) {
    std::string content;
    char buffer[16 * 1024];
    ::lseek(descriptor, 0, SEEK_SET);
    while (true) {
        const auto count = ::read(descriptor, buffer, sizeof buffer);
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return content;
        }
        content.append(buffer, static_cast<std::size_t>(count));
    }
}

// Length of the well-formed UTF-8 sequence at the start of `text`; 0 when there is none.
std::size_t sequenceLength(std::string_view text) {
    const auto byte = [&](std::size_t i) { return static_cast<std::uint8_t>(text[i]); };
    const auto continuation = [&](std::size_t i) {
        return i < text.size() && (byte(i) & 0xC0) == 0x80;
    };
    const std::uint8_t lead = byte(0);
    if (lead < 0x80) {
        return 1;
    }
    if (lead >= 0xC2 && lead <= 0xDF) {
        return continuation(1) ? 2 : 0;
    }
    if (lead >= 0xE0 && lead <= 0xEF) {
        if (!continuation(1) || !continuation(2)) {
            return 0;
        }
        // Overlong forms and surrogates.
        if ((lead == 0xE0 && byte(1) < 0xA0) || (lead == 0xED && byte(1) >= 0xA0)) {
            return 0;
        }
        return 3;
    }
    if (lead >= 0xF0 && lead <= 0xF4) {
        if (!continuation(1) || !continuation(2) || !continuation(3)) {
            return 0;
        }
        if ((lead == 0xF0 && byte(1) < 0x90) || (lead == 0xF4 && byte(1) >= 0x90)) {
            return 0;
        }
        return 4;
    }
    return 0;
}

void appendEscaped(std::string& out, unsigned char c) {
    switch (c) {
        case '\n':
            out += "\\n";
            return;
        case '\r':
            out += "\\r";
            return;
        case '\t':
            out += "\\t";
            return;
        default:
            static constexpr char kHex[] = "0123456789abcdef";
            out += "\\x";
            out += kHex[c >> 4];
            out += kHex[c & 0xF];
    }
}

}  // namespace

ExtensionLogWriter::ExtensionLogWriter(std::filesystem::path file)
    : ExtensionLogWriter(std::move(file), Options{}) {}

ExtensionLogWriter::ExtensionLogWriter(std::filesystem::path file, Options options)
    : file_(std::move(file)),
      maxBytes_(options.maxBytes),
      // A kept half must always have room for the next line.
      maxLineBytes_(std::min(kMaxLineBytes, options.maxBytes / 4)),
      echo_(options.echo),
      clock_(options.clock ? std::move(options.clock)
                           : [] { return std::chrono::system_clock::now(); }) {}

ExtensionLogWriter::~ExtensionLogWriter() {
    if (descriptor_ >= 0) {
        ::close(descriptor_);
    }
}

void ExtensionLogWriter::addSecret(std::string secret) {
    if (secret.size() < kMinSecretLength) {
        return;
    }
    std::lock_guard lock(mutex_);
    secrets_.push_back(std::move(secret));
    // Longest first, so that a secret containing another is masked whole.
    std::sort(secrets_.begin(), secrets_.end(),
              [](const auto& a, const auto& b) { return a.size() > b.size(); });
}

std::string ExtensionLogWriter::masked(std::string_view line) const {
    std::string text(line);
    for (const auto& secret : secrets_) {
        for (auto at = text.find(secret); at != std::string::npos;
             at = text.find(secret, at + kRedacted.size())) {
            text.replace(at, secret.size(), kRedacted);
        }
    }
    return text;
}

std::string ExtensionLogWriter::timestamp(std::chrono::system_clock::time_point time) {
    using namespace std::chrono;
    const auto millis = duration_cast<milliseconds>(time.time_since_epoch()).count();
    auto seconds = static_cast<std::time_t>(millis / 1000);
    auto fraction = millis % 1000;
    if (fraction < 0) {
        fraction += 1000;
        --seconds;
    }
    std::tm parts{};
    ::gmtime_r(&seconds, &parts);
    char buffer[40];
    const auto length = std::strftime(buffer, sizeof buffer, "%Y-%m-%dT%H:%M:%S", &parts);
    char text[48];
    std::snprintf(text, sizeof text, "%.*s.%03dZ", static_cast<int>(length), buffer,
                  static_cast<int>(fraction));
    return text;
}

std::string ExtensionLogWriter::sanitized(std::string_view line, std::size_t maxBytes) {
    std::string out;
    out.reserve(std::min(line.size(), maxBytes) + 8);
    // Where each whole character ends, so that a cut never splits one.
    std::size_t lastFit = 0;
    bool cut = false;
    while (!line.empty()) {
        const std::size_t length = sequenceLength(line);
        const auto c = static_cast<unsigned char>(line[0]);
        if (length == 0) {
            out += kReplacement;
        } else if (length == 1 && (c < 0x20 || c == 0x7F)) {
            appendEscaped(out, c);
        } else {
            out.append(line.substr(0, length));
        }
        line.remove_prefix(length == 0 ? 1 : length);
        if (out.size() > maxBytes) {
            cut = true;
            break;
        }
        lastFit = out.size();
    }
    if (cut) {
        // Room for the ellipsis inside the bound.
        std::size_t end = lastFit;
        while (end + kEllipsis.size() > maxBytes && end > 0) {
            --end;
        }
        // Back off to a character boundary: never leave half of one.
        while (end > 0 && (static_cast<unsigned char>(out[end]) & 0xC0) == 0x80) {
            --end;
        }
        out.resize(end);
        out += kEllipsis;
    }
    return out;
}

void ExtensionLogWriter::ensureOpen() {
    struct stat onDisk {};
    struct stat open {};
    if (descriptor_ >= 0) {
        // Someone removed or replaced the file: follow the name, as a reader does.
        if (::stat(file_.c_str(), &onDisk) == 0 && ::fstat(descriptor_, &open) == 0 &&
            onDisk.st_ino == open.st_ino && onDisk.st_dev == open.st_dev) {
            return;
        }
        ::close(descriptor_);
        descriptor_ = -1;
    }
    descriptor_ = ::open(file_.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
}

// Replaced in one step, so that a reader sees either the old file or the new one.
bool ExtensionLogWriter::replaceFile(const std::filesystem::path& path, std::string_view content) {
    auto temporary = path;
    temporary += ".tmp";
    const int fresh = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
    if (fresh < 0) {
        return false;
    }
    const bool written = files::writeAll(fresh, content);
    ::close(fresh);
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        ::unlink(temporary.c_str());
        return false;
    }
    return true;
}

void ExtensionLogWriter::rotate(std::size_t incoming) {
    struct stat status {};
    if (::fstat(descriptor_, &status) != 0 ||
        static_cast<std::size_t>(status.st_size) + incoming <= maxBytes_) {
        return;
    }
    const std::string content = readAll(descriptor_);
    // The newest whole lines that fit in half the bound.
    std::size_t start = content.size() > maxBytes_ / 2 ? content.size() - maxBytes_ / 2 : 0;
    if (start > 0) {
        const auto newline = content.find('\n', start - 1);
        start = newline == std::string::npos ? content.size() : newline + 1;
    }
    const std::string_view kept = std::string_view(content).substr(start);

    // The whole file is kept as the previous one, so that nothing is lost at once, however many
    // lines come in a burst.
    auto previous = file_;
    previous += ".1";
    replaceFile(previous, content);
    if (!replaceFile(file_, kept)) {
        // Better an emptied log than one past its bound.
        [[maybe_unused]] const int ignored = ::ftruncate(descriptor_, 0);
        return;
    }
    ::close(descriptor_);
    descriptor_ = ::open(file_.c_str(), O_RDWR | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
}

void ExtensionLogWriter::write(std::string_view line) {
    std::string entry;
    {
        std::lock_guard lock(mutex_);
        entry = timestamp(clock_()) + " " + sanitized(masked(line), maxLineBytes_);
        ensureOpen();
        if (descriptor_ >= 0) {
            rotate(entry.size() + 1);
        }
        if (descriptor_ >= 0) {
            files::writeAll(descriptor_, entry + "\n");
        }
    }
    if (echo_) {
        echo_->write(entry);
    }
}

}  // namespace velmorand::extension
