#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace velmorand {
class Log;
class MainQueue;
}  // namespace velmorand

namespace velmorand::extension {

// Viewers send stream notices (key-frame requests, quality reports, settings) as often as they
// like; the commands carried out and their outcomes must not be pushed out of the log by them.
// Of each kind of notice, the first few of an interval are written, and the rest only counted:
// one line with the count when the interval ends. Lives on the main queue.
class NoticeThrottle {
  public:
    static constexpr std::chrono::seconds kInterval{10};
    static constexpr std::uint64_t kLinesPerInterval = 5;

    NoticeThrottle(Log& log, MainQueue& mainQueue);
    ~NoticeThrottle();
    NoticeThrottle(const NoticeThrottle&) = delete;
    NoticeThrottle& operator=(const NoticeThrottle&) = delete;

    // Writes `line`, or counts it against `kind` ("request_idr") when that kind has had its lines
    // for this interval.
    void write(std::string_view kind, const std::string& line);

  private:
    struct Count {
        std::uint64_t written = 0;
        std::uint64_t held = 0;
    };
    void endInterval(const std::string& kind);

    Log& log_;
    MainQueue& mainQueue_;
    std::map<std::string, Count, std::less<>> counts_;
    // The interval's end runs only while the throttle exists.
    std::shared_ptr<NoticeThrottle*> self_ = std::make_shared<NoticeThrottle*>(this);
};

}  // namespace velmorand::extension
