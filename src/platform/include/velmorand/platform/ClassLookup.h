#pragma once

#include <string_view>

namespace velmorand {

// Whether a class of the given name can be instantiated by this installation at run time.
class ClassLookup {
  public:
    virtual ~ClassLookup() = default;

    virtual bool classExists(std::string_view name) const = 0;
};

}  // namespace velmorand
