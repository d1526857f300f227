#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "velmorand/platform/InputInjector.h"
#include "velmorand/wayland/WaylandKeymap.h"

namespace velmorand {

class RemoteDesktopSession;

// Pointer and keyboard input on a Wayland desktop, through a remote-desktop session of its
// compositor: the pointer in the screen cast's coordinates, keys as keysyms. The compositor types
// only the keysyms of its layout; characters it lacks (é on a US layout, CJK) are pasted instead,
// through the session's own clipboard, a run at a time, and the clipboard's text is put back
// afterwards; a session without a clipboard cannot type them.
class WaylandInputInjector : public InputInjector {
  public:
    // The session in use; a new one once the compositor has closed the last (after a restart).
    using Session = std::function<std::shared_ptr<RemoteDesktopSession>()>;

    // `keymap`: the layout the compositor types with; absent if it could not be read (every
    // character is then sent as a keysym).
    WaylandInputInjector(Session session, std::optional<WaylandKeymap> keymap);
    ~WaylandInputInjector() override;

    ScreenSize screenSize() override;
    void movePointer(int x, int y) override;
    void setLeftButton(bool pressed) override;
    void setKey(NamedKey key, bool pressed) override;
    bool typeCharacter(char32_t character) override;
    bool setCharacterKey(char32_t character, bool pressed) override;
    void flush() override;
    void discardUnsent() override { pending_.clear(); }

  private:
    bool layoutTypes(std::uint32_t keysym) const;
    void pastePending();

    Session session_;
    std::optional<WaylandKeymap> keymap_;
    std::shared_ptr<RemoteDesktopSession> current_;
    // Characters the layout lacks, waiting to be pasted as one.
    std::string pending_;
    std::vector<std::uint32_t> heldKeysyms_;
    bool buttonHeld_ = false;
    // The pointer moved since the last press.
    bool moved_ = false;
};

}  // namespace velmorand
