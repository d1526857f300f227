#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "velmorand/platform/InputInjector.h"

struct xcb_connection_t;

namespace velmorand {

// Pointer and keyboard input on an X11 display, through XTEST. Characters go to the keys the
// server's keyboard mapping has for them; one it lacks borrows an unused keycode for a while.
// The injector records its process and the keycodes it has borrowed on the root window, so that
// after one that ended without cleaning up (killed, crashed) the next gives the keycodes back and
// lets go of what it left held.
class XcbInputInjector : public InputInjector {
  public:
    // `displayName` as X11 spells it (":0"); nullptr takes $DISPLAY.
    static std::variant<std::unique_ptr<InputInjector>, std::string> open(const char* displayName);

    // Lets go of every key and button still held and gives back the borrowed keycodes.
    ~XcbInputInjector() override;
    XcbInputInjector(const XcbInputInjector&) = delete;
    XcbInputInjector& operator=(const XcbInputInjector&) = delete;

    ScreenSize screenSize() override;
    void movePointer(int x, int y) override;
    void setLeftButton(bool pressed) override;
    void setKey(NamedKey key, bool pressed) override;
    bool typeCharacter(char32_t character) override;
    bool setCharacterKey(char32_t character, bool pressed) override;
    void flush() override;
    // Every character goes at once: nothing waits.
    void discardUnsent() override {}

  private:
    using Clock = std::chrono::steady_clock;

    // A keycode with nothing bound to it, lent to one keysym at a time.
    struct SpareKey {
        std::uint8_t keycode = 0;
        std::uint32_t keysym = 0;
        Clock::time_point lastTyped;
    };
    // A key held down, with the keysym it was pressed for: the mapping may change before it is
    // let go of.
    struct HeldKey {
        std::uint32_t keysym = 0;
        std::uint8_t keycode = 0;
    };
    struct KeyLevel {
        std::uint8_t keycode = 0;
        int level = 0;
    };

    XcbInputInjector(xcb_connection_t* connection, std::uint32_t root);

    // Undoes what an injector that is gone left behind, then records this one.
    void takeOver();
    // Writes this process and the borrowed keycodes to the root window.
    void record();

    void readKeyboardMapping(int firstKeycode, int count);
    void readModifierMapping();
    // Follows changes to the keyboard mapping, by anyone.
    void readEvents();
    std::uint32_t keysymAt(int keycode, int level) const;
    std::optional<KeyLevel> findKey(std::uint32_t keysym, int highestLevel) const;
    bool isSpare(int keycode) const;
    bool isHeld(int keycode) const;
    void collectSpareKeys();
    std::optional<std::uint8_t> lendSpareKey(std::uint32_t keysym);
    void giveBackSpareKeys();
    // The key that types `keysym` with no modifier, borrowed if need be.
    std::optional<std::uint8_t> unshiftedKey(std::uint32_t keysym);
    void hold(std::uint32_t keysym, std::uint8_t keycode);
    void letGo(std::uint32_t keysym);
    void fakeKey(std::uint8_t keycode, bool pressed);
    void tap(std::uint8_t keycode);
    std::uint16_t modifierState();
    bool lost() const;

    xcb_connection_t* connection_;
    std::uint32_t root_;
    ScreenSize size_;
    int minKeycode_ = 0;
    int maxKeycode_ = 0;
    int keysymsPerKeycode_ = 0;
    std::vector<std::uint32_t> keysyms_;
    std::vector<std::uint8_t> shiftKeycodes_;
    std::vector<std::uint8_t> modifierKeycodes_;
    std::vector<SpareKey> spareKeys_;
    std::vector<HeldKey> held_;
    bool buttonHeld_ = false;
    std::uint32_t recordAtom_ = 0;
};

}  // namespace velmorand
