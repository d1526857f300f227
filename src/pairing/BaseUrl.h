#pragma once

#include <string_view>

namespace velmorand {

// A service base URL with every leading and trailing "/" removed (whitespace is kept), ready
// for an endpoint path to be appended.
inline std::string_view trimmingSlashes(std::string_view base) {
    const auto first = base.find_first_not_of('/');
    if (first == std::string_view::npos) {
        return {};
    }
    return base.substr(first, base.find_last_not_of('/') - first + 1);
}

}  // namespace velmorand
