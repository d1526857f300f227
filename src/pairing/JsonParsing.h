#pragma once

#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

namespace velmorand {

// Parses a response body as the platform's parser does with its default options: the top level
// must be an object or an array. Throws JsonParseError.
nlohmann::json parseJson(std::string_view text);

// Serialises a request body. Throws JsonEncodeError.
std::string dumpJson(const nlohmann::json& value);

}  // namespace velmorand
