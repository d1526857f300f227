#pragma once

#include <mutex>

#include "velmorand/platform/Log.h"

namespace velmorand {

// Each line goes to standard error whole, in one write, never interleaved with another line.
class StderrLog : public Log {
  public:
    StderrLog() = default;
    // For tests: any descriptor instead of standard error.
    explicit StderrLog(int descriptor) : descriptor_(descriptor) {}

    void write(std::string_view line) override;

  private:
    int descriptor_ = 2;
    std::mutex mutex_;
};

}  // namespace velmorand
