#include "velmorand/ui/ExtensionLog.h"

#include "velmorand/config/AppGroup.h"
#include "velmorand/platform/Bundle.h"
#include "velmorand/platform/Files.h"
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
    const auto text = readWholeFile(*container / kFileName);
    if (!text || !isValidUtf8(*text)) {
        return "";
    }
    return lastGraphemes(*text, kMaxCharacters);
}

}  // namespace velmorand
