#pragma once

#include <cstddef>
#include <string>
#include <string_view>

namespace velmorand {

class AppGroup;
class GroupContainers;

// The tail of the upload extension's log, read from the shared group container.
class ExtensionLog {
  public:
    static constexpr std::string_view kFileName = "extension.log";
    static constexpr std::size_t kMaxCharacters = 4000;

    ExtensionLog() = delete;

    // The last kMaxCharacters user-perceived characters of the log; "" when the group is not
    // available (the container is then not even asked for), there is no container or file, or
    // the file is not valid UTF-8.
    static std::string readExtLog(const AppGroup& appGroup, const GroupContainers& containers);
};

}  // namespace velmorand
