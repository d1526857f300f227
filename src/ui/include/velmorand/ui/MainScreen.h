#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velmorand {

// The main screen's rules that are not layout: what is enabled, what is shown, and what the
// broadcast button is given.
class MainScreen {
  public:
    static constexpr std::string_view kEmptyLogText = "(empty — start a broadcast first)";
    static constexpr std::string_view kPairedFallbackLabel = "Paired";
    static constexpr std::string_view kStartBroadcastTitle = "Start Broadcast";
    static constexpr std::string_view kMissingExtensionTitle = "Broadcast extension missing";

    MainScreen() = delete;

    // The key, with spaces and tabs (only those) trimmed from both ends, is not empty, and no
    // pairing is in flight.
    static bool pairEnabled(std::string_view key, bool busy);

    // The identifier for the broadcast button: the model's broadcastExtensionID, but only when
    // paired and an upload extension is found; absent otherwise, which keeps the button disabled.
    static std::optional<std::string> broadcastIdentifier(
        bool paired, const std::optional<std::string>& foundExtension,
        std::string_view modelExtensionID);

    // The broadcast button follows its identifier alone.
    static std::string_view broadcastTitle(const std::optional<std::string>& extensionID) {
        return extensionID ? kStartBroadcastTitle : kMissingExtensionTitle;
    }

    // Which of the broadcast section's three notes shows.
    struct BroadcastNotes {
        bool pairFirst = false;         // orange: not paired
        bool startHelp = false;         // secondary: paired, extension found
        bool missingExtension = false;  // orange: paired, no extension
        bool operator==(const BroadcastNotes&) const = default;
    };
    static BroadcastNotes broadcastNotes(bool paired, bool extensionFound);

    // A status, touch-control or encode line shows only when it holds a character.
    static bool showsLine(std::string_view text) { return !text.empty(); }

    // What the relay section warns of: the custom URL as typed (saved or not) when there is one,
    // else the relay from pairing, judged as the broadcast will judge it. Absent when all is well.
    static std::optional<std::string> relayProblem(std::string_view typedOverride,
                                                   const std::optional<std::string>& pairedRelay);

    static std::string pairedLabel(std::string_view deviceName);
    static std::string logText(std::string_view log);
};

}  // namespace velmorand
