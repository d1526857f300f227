#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace velmorand {

using Bytes = std::vector<std::uint8_t>;

// A scalar as the platform's stores keep it. The alternative held is the stored type, so a reader
// can tell an integer from a real from a boolean, as the platform's number objects can.
using StoredValue = std::variant<std::string, std::int64_t, double, bool, Bytes>;

}  // namespace velmorand
