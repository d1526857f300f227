#pragma once

#include <string_view>

namespace velmorand {

class Pasteboard {
  public:
    virtual ~Pasteboard() = default;

    // Whether this desktop lets the clipboard be set at all.
    virtual bool available() { return true; }
    virtual void setString(std::string_view text) = 0;
};

}  // namespace velmorand
