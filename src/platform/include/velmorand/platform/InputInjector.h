#pragma once

#include "velmorand/platform/ScreenCapture.h"

namespace velmorand {

// Keys with a name of their own. Characters, letters of key combinations included, go through
// the character calls, so that the layout decides which key types them.
enum class NamedKey {
    enter,
    backspace,
    deleteKey,
    tab,
    escape,
    space,
    up,
    down,
    left,
    right,
    home,
    end,
    pageUp,
    pageDown,
    f1,
    f2,
    f3,
    f4,
    f5,
    f6,
    f7,
    f8,
    f9,
    f10,
    f11,
    f12,
    control,
    shift,
    alt,
    super,
    volumeUp,
    volumeDown,
    mute,
    lock,
};

// Synthetic pointer and keyboard input on the desktop, in screen pixels. One thread at a time.
class InputInjector {
  public:
    virtual ~InputInjector() = default;

    virtual ScreenSize screenSize() = 0;
    virtual void movePointer(int x, int y) = 0;
    virtual void setLeftButton(bool pressed) = 0;
    virtual void setKey(NamedKey key, bool pressed) = 0;
    // Presses and releases what types `character` in the current layout, shift included. A
    // character the layout has no key for goes through a key mapped to it for the moment. False
    // when it cannot be typed at all.
    virtual bool typeCharacter(char32_t character) = 0;
    // Holds down, or lets go of, the key that types `character`, adding no shift: the letter of a
    // combination such as ctrl+c. False when no key can be found or mapped for it.
    virtual bool setCharacterKey(char32_t character, bool pressed) = 0;
    // Everything sent so far takes effect before this returns.
    virtual void flush() = 0;
    // Drops what was typed and not sent yet (characters gathered to go as one), for typing that
    // was cut short: it must not go on after.
    virtual void discardUnsent() = 0;
};

}  // namespace velmorand
