#include "velmorand/wayland/WaylandInputInjector.h"

#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <chrono>
#include <thread>
#include <utility>

#include "velmorand/desktop/NamedKeysyms.h"
#include "velmorand/wayland/RemoteDesktopSession.h"

namespace velmorand {
namespace {

constexpr std::int32_t kLeftButton = 0x110;  // BTN_LEFT
// How long a paste may take to reach the program that has the keyboard.
constexpr auto kPasteTimeout = std::chrono::milliseconds(1000);
// A program may read what is offered more than once for one paste (Qt reads it twice): the
// clipboard is put back only once it has not been read for this long.
constexpr auto kPasteSettle = std::chrono::milliseconds(100);

void appendUtf8(std::string& out, char32_t c) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (c >> 18));
        out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// Returns once the program that pastes has stopped reading what was offered (`before`: the reads
// so far): the first read may come within kPasteTimeout, each further one within kPasteSettle of
// the last, and all of it within kPasteTimeout.
void awaitLastRead(const RemoteDesktopSession& session, std::uint64_t before) {
    const auto deadline = std::chrono::steady_clock::now() + kPasteTimeout;
    auto wait = kPasteTimeout;
    while (wait.count() > 0 && session.waitForPaste(before, wait)) {
        before = session.pastes();
        wait = std::min<std::chrono::milliseconds>(
            kPasteSettle, std::chrono::duration_cast<std::chrono::milliseconds>(
                              deadline - std::chrono::steady_clock::now()));
    }
}

}  // namespace

WaylandInputInjector::WaylandInputInjector(Session session, std::optional<WaylandKeymap> keymap)
    : session_(std::move(session)), keymap_(std::move(keymap)), current_(session_()) {}

WaylandInputInjector::~WaylandInputInjector() {
    if (!current_ || current_->ended() != SessionEnd::none) {
        return;
    }
    for (auto held = heldKeysyms_.rbegin(); held != heldKeysyms_.rend(); ++held) {
        current_->setKeysym(*held, false);
    }
    if (buttonHeld_) {
        current_->setButton(kLeftButton, false);
    }
    current_->sync();
}

ScreenSize WaylandInputInjector::screenSize() {
    if (!current_ || current_->ended() != SessionEnd::none) {
        // A restarted compositor: what was held went with the old session.
        current_ = session_();
        heldKeysyms_.clear();
        buttonHeld_ = false;
    }
    return current_ ? current_->screenSize() : ScreenSize{};
}

void WaylandInputInjector::movePointer(int x, int y) {
    if (current_) {
        // The middle of the pixel, which the compositor rounds down to it.
        current_->movePointer(x + 0.5, y + 0.5);
        moved_ = true;
    }
}

void WaylandInputInjector::setLeftButton(bool pressed) {
    if (!current_) {
        return;
    }
    if (pressed && std::exchange(moved_, false)) {
        current_->sync();
        std::this_thread::sleep_for(current_->pointerSettle());
    }
    current_->setButton(kLeftButton, pressed);
    buttonHeld_ = pressed;
}

bool WaylandInputInjector::layoutTypes(std::uint32_t keysym) const {
    return !keymap_ || keymap_->types(keysym);
}

void WaylandInputInjector::setKey(NamedKey key, bool pressed) {
    pastePending();
    if (!current_) {
        return;
    }
    const auto keysyms = keysymsFor(key);
    std::uint32_t chosen = keysyms.front();
    for (const auto keysym : keysyms) {
        if (keysym != XKB_KEY_NoSymbol && layoutTypes(keysym)) {
            chosen = keysym;
            break;
        }
    }
    if (pressed) {
        heldKeysyms_.push_back(chosen);
    } else {
        std::erase(heldKeysyms_, chosen);
    }
    current_->setKeysym(chosen, pressed);
}

bool WaylandInputInjector::typeCharacter(char32_t character) {
    const std::uint32_t keysym = xkb_utf32_to_keysym(character);
    if (keysym == XKB_KEY_NoSymbol || !current_) {
        return false;
    }
    if (!layoutTypes(keysym)) {
        if (!current_->hasClipboard()) {
            return false;
        }
        appendUtf8(pending_, character);
        return true;
    }
    pastePending();
    current_->setKeysym(keysym, true);
    current_->setKeysym(keysym, false);
    return true;
}

bool WaylandInputInjector::setCharacterKey(char32_t character, bool pressed) {
    pastePending();
    const std::uint32_t keysym = xkb_utf32_to_keysym(character);
    if (keysym == XKB_KEY_NoSymbol || !current_ || !layoutTypes(keysym)) {
        return false;
    }
    if (pressed) {
        heldKeysyms_.push_back(keysym);
    } else {
        std::erase(heldKeysyms_, keysym);
    }
    current_->setKeysym(keysym, pressed);
    return true;
}

void WaylandInputInjector::flush() {
    pastePending();
    if (current_) {
        current_->sync();
    }
}

void WaylandInputInjector::pastePending() {
    if (pending_.empty() || !current_) {
        pending_.clear();
        return;
    }
    current_->sync();
    const auto previous = current_->readText();
    const auto pastes = current_->pastes();
    const std::string pasted = std::exchange(pending_, {});
    current_->offerText(pasted);
    current_->setKeysym(XKB_KEY_Control_L, true);
    current_->setKeysym(XKB_KEY_v, true);
    current_->setKeysym(XKB_KEY_v, false);
    current_->setKeysym(XKB_KEY_Control_L, false);
    current_->sync();
    awaitLastRead(*current_, pastes);
    // Unless someone took the clipboard meanwhile (a program at the device copying): theirs stays.
    if (previous && current_->readText() == pasted) {
        current_->offerText(*previous);
    }
}

}  // namespace velmorand
