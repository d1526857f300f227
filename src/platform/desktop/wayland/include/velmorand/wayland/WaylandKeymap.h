#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <variant>

namespace velmorand {

// Which keysyms the compositor's keyboard layout can type: read as any Wayland client gets it,
// from the seat's keyboard. A compositor's keysym injection types only what its layout has (in
// the current group, with shift or AltGr at most); everything else must go another way.
class WaylandKeymap {
  public:
    // Connects to $WAYLAND_DISPLAY and reads the keymap of its first seat; or says why not.
    static std::variant<WaylandKeymap, std::string> read();

    // From a keymap in xkbcommon's text form.
    static std::optional<WaylandKeymap> fromText(const std::string& keymap);

    // Whether the first group has `keysym` on one of its first three levels.
    bool types(std::uint32_t keysym) const { return typable_.count(keysym) != 0; }

  private:
    std::unordered_set<std::uint32_t> typable_;
};

}  // namespace velmorand
