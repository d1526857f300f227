#include "velmorand/ui/ExtensionLog.h"

#include <fstream>
#include <iterator>

#include "velmorand/config/AppGroup.h"
#include "velmorand/platform/Bundle.h"
#include "velmorand/platform/Text.h"

namespace velmorand {

std::string ExtensionLog::readExtLog(const AppGroup& appGroup, const GroupContainers& containers) {
    if (!appGroup.available()) {
        return "";
    }
    const auto container = containers.containerDirectory(kAppGroupName);
    if (!container) {
        return "";
    }
    std::ifstream file(*container / kFileName, std::ios::binary);
    if (!file) {
        return "";
    }
    const std::string text{std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    if (file.bad() || !isValidUtf8(text)) {
        return "";
    }
    return lastGraphemes(text, kMaxCharacters);
}

}  // namespace velmorand
