#include "velmorand/ui/MainScreen.h"

namespace velmorand {

bool MainScreen::pairEnabled(std::string_view key, bool busy) {
    // Not the Unicode trim used elsewhere: any other white space counts as a character here.
    const auto first = key.find_first_not_of(" \t");
    return first != std::string_view::npos && !busy;
}

std::optional<std::string> MainScreen::broadcastIdentifier(
    bool paired, const std::optional<std::string>& foundExtension,
    std::string_view modelExtensionID) {
    if (!paired || !foundExtension) {
        return std::nullopt;
    }
    return std::string(modelExtensionID);
}

MainScreen::BroadcastNotes MainScreen::broadcastNotes(bool paired, bool extensionFound) {
    return BroadcastNotes{
        .pairFirst = !paired,
        .startHelp = paired && extensionFound,
        .missingExtension = paired && !extensionFound,
    };
}

std::string MainScreen::pairedLabel(std::string_view deviceName) {
    return std::string(deviceName.empty() ? kPairedFallbackLabel : deviceName);
}

std::string MainScreen::logText(std::string_view log) {
    return std::string(log.empty() ? kEmptyLogText : log);
}

}  // namespace velmorand
