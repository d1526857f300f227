#pragma once

#include <xkbcommon/xkbcommon-keysyms.h>

#include <array>
#include <cstdint>

#include "velmorand/platform/InputInjector.h"

namespace velmorand {

// The keysyms a named key may be, best first (the rest are NoSymbol); the first is the one to
// send, or to borrow a key for, when the layout has none of them.
inline std::array<std::uint32_t, 3> keysymsFor(NamedKey key) {
    switch (key) {
        case NamedKey::enter:
            return {XKB_KEY_Return, XKB_KEY_KP_Enter};
        case NamedKey::backspace:
            return {XKB_KEY_BackSpace};
        case NamedKey::deleteKey:
            return {XKB_KEY_Delete, XKB_KEY_KP_Delete};
        case NamedKey::tab:
            return {XKB_KEY_Tab};
        case NamedKey::escape:
            return {XKB_KEY_Escape};
        case NamedKey::space:
            return {XKB_KEY_space};
        case NamedKey::up:
            return {XKB_KEY_Up};
        case NamedKey::down:
            return {XKB_KEY_Down};
        case NamedKey::left:
            return {XKB_KEY_Left};
        case NamedKey::right:
            return {XKB_KEY_Right};
        case NamedKey::home:
            return {XKB_KEY_Home};
        case NamedKey::end:
            return {XKB_KEY_End};
        case NamedKey::pageUp:
            return {XKB_KEY_Prior};
        case NamedKey::pageDown:
            return {XKB_KEY_Next};
        case NamedKey::f1:
        case NamedKey::f2:
        case NamedKey::f3:
        case NamedKey::f4:
        case NamedKey::f5:
        case NamedKey::f6:
        case NamedKey::f7:
        case NamedKey::f8:
        case NamedKey::f9:
        case NamedKey::f10:
        case NamedKey::f11:
        case NamedKey::f12:
            return {static_cast<std::uint32_t>(XKB_KEY_F1 + static_cast<int>(key) -
                                               static_cast<int>(NamedKey::f1))};
        case NamedKey::control:
            return {XKB_KEY_Control_L, XKB_KEY_Control_R};
        case NamedKey::shift:
            return {XKB_KEY_Shift_L, XKB_KEY_Shift_R};
        case NamedKey::alt:
            return {XKB_KEY_Alt_L, XKB_KEY_Alt_R, XKB_KEY_Meta_L};
        case NamedKey::super:
            return {XKB_KEY_Super_L, XKB_KEY_Super_R};
        case NamedKey::volumeUp:
            return {XKB_KEY_XF86AudioRaiseVolume};
        case NamedKey::volumeDown:
            return {XKB_KEY_XF86AudioLowerVolume};
        case NamedKey::mute:
            return {XKB_KEY_XF86AudioMute};
        case NamedKey::lock:
            return {XKB_KEY_XF86ScreenSaver};
    }
    return {};
}

}  // namespace velmorand
