#include "velmorand/ui/QrScanController.h"

#include "velmorand/platform/Text.h"

namespace velmorand {

bool QrScanController::codesFound(const std::vector<std::optional<std::string>>& codes) {
    if (handled_ || codes.empty() || !codes.front()) {
        return false;
    }
    const auto text = trimmed(*codes.front());
    if (text.empty()) {
        return false;
    }
    handled_ = true;
    if (onStop_) {
        onStop_();
    }
    if (onCode_) {
        onCode_(text);
    }
    return true;
}

}  // namespace velmorand
