#pragma once

#include <string_view>

namespace velmorand {

// The system log: one line per event. Implementations are thread-safe.
class Log {
  public:
    virtual ~Log() = default;

    virtual void write(std::string_view line) = 0;
};

}  // namespace velmorand
