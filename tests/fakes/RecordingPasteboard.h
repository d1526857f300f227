#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "velmorand/platform/Pasteboard.h"

namespace velmorand::testing {

class RecordingPasteboard : public Pasteboard {
  public:
    void setString(std::string_view text) override { strings.emplace_back(text); }

    std::vector<std::string> strings;
};

}  // namespace velmorand::testing
