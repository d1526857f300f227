#include "velmorand/extension/NoticeThrottle.h"

#include "velmorand/platform/Log.h"
#include "velmorand/platform/MainQueue.h"

namespace velmorand::extension {

NoticeThrottle::NoticeThrottle(Log& log, MainQueue& mainQueue) : log_(log), mainQueue_(mainQueue) {}

NoticeThrottle::~NoticeThrottle() = default;

void NoticeThrottle::write(std::string_view kind, const std::string& line) {
    auto found = counts_.find(kind);
    if (found == counts_.end()) {
        found = counts_.emplace(std::string(kind), Count{}).first;
        mainQueue_.postAfter(kInterval,
                             [self = std::weak_ptr<NoticeThrottle*>(self_), kind = found->first] {
                                 if (const auto alive = self.lock()) {
                                     (*alive)->endInterval(kind);
                                 }
                             });
    }
    Count& count = found->second;
    if (count.written < kLinesPerInterval) {
        ++count.written;
        log_.write(line);
    } else {
        ++count.held;
    }
}

void NoticeThrottle::endInterval(const std::string& kind) {
    const auto found = counts_.find(kind);
    if (found == counts_.end()) {
        return;
    }
    const std::uint64_t held = found->second.held;
    counts_.erase(found);
    if (held > 0) {
        log_.write(kind + ": " + std::to_string(held) + " more in the last " +
                   std::to_string(kInterval.count()) + " s, not logged one by one");
    }
}

}  // namespace velmorand::extension
