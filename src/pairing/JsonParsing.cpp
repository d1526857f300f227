#include "JsonParsing.h"

#include "velmorand/pairing/JsonError.h"

namespace velmorand {

nlohmann::json parseJson(std::string_view text) {
    auto value = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (value.is_discarded() || !(value.is_object() || value.is_array())) {
        throw JsonParseError();
    }
    return value;
}

std::string dumpJson(const nlohmann::json& value) {
    try {
        return value.dump();
    } catch (const nlohmann::json::type_error&) {
        throw JsonEncodeError();
    }
}

}  // namespace velmorand
