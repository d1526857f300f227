#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "velmorand/platform/Log.h"

namespace velmorand::testing {

class RecordingLog : public Log {
  public:
    void write(std::string_view line) override {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(line);
    }
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
};

}  // namespace velmorand::testing
