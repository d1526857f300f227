#include "velmorand/ui/MainScreen.h"

#include "velmorand/platform/Text.h"
#include "velmorand/relay/RelayUrlPolicy.h"

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

std::optional<std::string> MainScreen::relayProblem(std::string_view typedOverride,
                                                    const std::optional<std::string>& pairedRelay) {
    const std::string custom = trimmed(typedOverride);
    if (!custom.empty()) {
        if (auto problem = RelayUrlPolicy::problem(custom)) {
            return "Custom relay: " + *problem;
        }
        return std::nullopt;
    }
    if (pairedRelay) {
        if (auto refused = RelayUrlPolicy::refusal(*pairedRelay)) {
            return "The relay from pairing will be refused: " + *refused;
        }
    }
    return std::nullopt;
}

std::string MainScreen::pairedLabel(std::string_view deviceName) {
    return std::string(deviceName.empty() ? kPairedFallbackLabel : deviceName);
}

std::string MainScreen::logText(std::string_view log) {
    return std::string(log.empty() ? kEmptyLogText : log);
}

}  // namespace velmorand
