#pragma once

#include <string_view>

namespace velmorand {

class Pasteboard {
  public:
    virtual ~Pasteboard() = default;

    virtual void setString(std::string_view text) = 0;
};

}  // namespace velmorand
