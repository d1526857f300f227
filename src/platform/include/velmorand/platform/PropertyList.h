#pragma once

#include <cstdint>
#include <span>

#include <nlohmann/json_fwd.hpp>

namespace velmorand {

// Parses an XML or binary property list into a tree: dictionaries become objects, arrays arrays,
// strings strings, integers and reals numbers, booleans booleans, data binary values and dates
// their ISO 8601 text. Returns false, leaving `out` untouched, when `bytes` is not one.
bool parsePropertyList(std::span<const std::uint8_t> bytes, nlohmann::json& out);

}  // namespace velmorand
