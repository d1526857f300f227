#include "velmorand/desktop/StderrLog.h"

#include <unistd.h>

#include <cerrno>
#include <string>

namespace velmorand {

void StderrLog::write(std::string_view line) {
    std::string text;
    text.reserve(line.size() + 1);
    text.append(line);
    text.push_back('\n');
    std::lock_guard lock(mutex_);
    std::string_view rest = text;
    // One call normally writes it all; a pipe may take a long line in parts.
    while (!rest.empty()) {
        const auto count = ::write(descriptor_, rest.data(), rest.size());
        if (count < 0 && errno == EINTR) {
            continue;
        }
        if (count <= 0) {
            return;
        }
        rest.remove_prefix(static_cast<std::size_t>(count));
    }
}

}  // namespace velmorand
