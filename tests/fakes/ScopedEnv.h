#pragma once

#include <cstdlib>
#include <optional>
#include <string>

namespace velmorand::testing {

// Sets an environment variable for the life of the object, or unsets it for a null value, then
// puts the old value back.
class ScopedEnv {
  public:
    ScopedEnv(const char* name, const char* value) : name_(name) {
        if (const char* old = std::getenv(name)) {
            previous_ = old;
        }
        assign(value);
    }
    ~ScopedEnv() { assign(previous_ ? previous_->c_str() : nullptr); }
    ScopedEnv(const ScopedEnv&) = delete;
    ScopedEnv& operator=(const ScopedEnv&) = delete;

  private:
    void assign(const char* value) const {
        if (value != nullptr) {
            ::setenv(name_.c_str(), value, 1);
        } else {
            ::unsetenv(name_.c_str());
        }
    }

    std::string name_;
    std::optional<std::string> previous_;
};

}  // namespace velmorand::testing
