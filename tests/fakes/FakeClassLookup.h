#pragma once

#include <set>
#include <string>
#include <string_view>

#include "velmorand/platform/ClassLookup.h"

namespace velmorand::testing {

// Knows exactly the classes listed in `classes`.
class FakeClassLookup : public ClassLookup {
  public:
    bool classExists(std::string_view name) const override { return classes.contains(name); }

    std::set<std::string, std::less<>> classes;
};

}  // namespace velmorand::testing
