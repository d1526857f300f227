#pragma once

#include <stdexcept>
#include <string>

namespace velmorand {

// A body that is not JSON. The text is meant for the status line, so the parser's own diagnostics
// stay out of it.
class JsonParseError : public std::runtime_error {
  public:
    JsonParseError() : std::runtime_error("The server's answer is not valid JSON.") {}

    std::string description() const { return what(); }
};

// A request body that cannot be written as JSON (text that is not valid UTF-8).
class JsonEncodeError : public std::runtime_error {
  public:
    JsonEncodeError() : std::runtime_error("The request contains text that is not valid UTF-8.") {}

    std::string description() const { return what(); }
};

}  // namespace velmorand
