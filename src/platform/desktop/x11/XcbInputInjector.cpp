#include "velmorand/x11/XcbInputInjector.h"

#include <xcb/xcb.h>
#include <xcb/xtest.h>
#include <xkbcommon/xkbcommon-keysyms.h>
#include <xkbcommon/xkbcommon.h>

#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <limits>
#include <thread>
#include <utility>

#include "XcbDisplay.h"
#include "velmorand/desktop/NamedKeysyms.h"

namespace velmorand {
namespace {

// Keysyms the layout lacks borrow keycodes nothing is bound to, at most this many, each kept
// until it is the one least recently typed; the mapping is left as it was found on the way out.
constexpr std::size_t kMaxSpareKeys = 16;
// Clients translate a key event with the mapping they hold when they get round to it, not the
// one in force when it was sent, so a borrowed keycode is given another keysym only once its
// last event has had this long to be read.
constexpr auto kRemapSettle = std::chrono::milliseconds(30);
// A client changing the mapping over and over is followed, but only so many events at a time.
constexpr int kMaxEventsRead = 256;
constexpr std::uint8_t kLeftButton = 1;
// CARDINAL[]: the process id of the injector, then each keycode it has borrowed.
constexpr std::string_view kRecordName = "_VELMORAND_INPUT_INJECTOR";

std::int16_t coordinate(int value) {
    return static_cast<std::int16_t>(std::clamp<int>(
        value, std::numeric_limits<std::int16_t>::min(), std::numeric_limits<std::int16_t>::max()));
}

}  // namespace

std::variant<std::unique_ptr<InputInjector>, std::string> XcbInputInjector::open(
    const char* displayName) {
    auto opened = XcbDisplay::open(displayName, "remote control");
    if (auto* error = std::get_if<std::string>(&opened)) {
        return std::move(*error);
    }
    auto& display = std::get<XcbDisplay>(opened);
    const auto* xtest = xcb_get_extension_data(display.connection.get(), &xcb_test_id);
    if (xtest == nullptr || xtest->present == 0) {
        return std::string("the X server lacks the XTEST extension");
    }
    std::unique_ptr<XcbInputInjector> injector(
        new XcbInputInjector(display.connection.release(), display.root));
    const auto* setup = xcb_get_setup(injector->connection_);
    injector->minKeycode_ = setup->min_keycode;
    injector->maxKeycode_ = setup->max_keycode;
    injector->readKeyboardMapping(injector->minKeycode_,
                                  injector->maxKeycode_ - injector->minKeycode_ + 1);
    injector->readModifierMapping();
    injector->takeOver();
    injector->screenSize();
    if (injector->lost()) {
        return std::string("the X server closed the connection");
    }
    if (injector->keysyms_.empty()) {
        return std::string("the X server did not tell its keyboard mapping");
    }
    return std::unique_ptr<InputInjector>(std::move(injector));
}

XcbInputInjector::XcbInputInjector(xcb_connection_t* connection, std::uint32_t root)
    : connection_(connection), root_(root) {}

XcbInputInjector::~XcbInputInjector() {
    if (!lost()) {
        for (auto held = held_.rbegin(); held != held_.rend(); ++held) {
            fakeKey(held->keycode, false);
        }
        held_.clear();
        if (buttonHeld_) {
            setLeftButton(false);
        }
        giveBackSpareKeys();
        xcb_delete_property(connection_, root_, recordAtom_);
        XcbDisplay::sync(connection_);
    }
    xcb_disconnect(connection_);
}

void XcbInputInjector::takeOver() {
    recordAtom_ = XcbDisplay::internAtoms(connection_, {kRecordName}).front();
    if (recordAtom_ == XCB_ATOM_NONE) {
        return;
    }
    const XcbOwned<xcb_get_property_reply_t> reply(xcb_get_property_reply(
        connection_,
        xcb_get_property(connection_, 0, root_, recordAtom_, XCB_ATOM_CARDINAL, 0, 1 + 256),
        nullptr));
    const int values =
        reply && reply->format == 32 ? xcb_get_property_value_length(reply.get()) / 4 : 0;
    const auto* recorded =
        values > 0 ? static_cast<const std::uint32_t*>(xcb_get_property_value(reply.get()))
                   : nullptr;
    // A live injector (another broadcast on this display) keeps what it holds, though this one's
    // record now replaces its own.
    const bool abandoned =
        recorded != nullptr && !(::kill(static_cast<pid_t>(recorded[0]), 0) == 0 || errno == EPERM);
    if (abandoned) {
        // Only a keycode still bound as it was lent (one keysym wherever it is bound: the server
        // repeats it into the other groups) is given back: one bound since is someone else's.
        const std::vector<xcb_keysym_t> unbound(static_cast<std::size_t>(keysymsPerKeycode_),
                                                XKB_KEY_NoSymbol);
        for (int i = 1; i < values; ++i) {
            const int keycode = static_cast<int>(recorded[i]);
            if (keycode < minKeycode_ || keycode > maxKeycode_ || keysymsPerKeycode_ < 2) {
                continue;
            }
            const auto* row =
                &keysyms_[static_cast<std::size_t>(keycode - minKeycode_) * keysymsPerKeycode_];
            const bool lent = row[0] != XKB_KEY_NoSymbol && row[1] == row[0] &&
                              std::all_of(row + 2, row + keysymsPerKeycode_, [row](auto keysym) {
                                  return keysym == XKB_KEY_NoSymbol || keysym == row[0];
                              });
            if (lent) {
                xcb_change_keyboard_mapping(connection_, 1, static_cast<xcb_keycode_t>(keycode),
                                            static_cast<std::uint8_t>(keysymsPerKeycode_),
                                            unbound.data());
            }
        }
        // Every key and button XTEST still holds down; what a person holds on a keyboard of the
        // machine's own is not XTEST's to let go of.
        const XcbOwned<xcb_query_keymap_reply_t> keymap(
            xcb_query_keymap_reply(connection_, xcb_query_keymap(connection_), nullptr));
        for (int keycode = minKeycode_; keymap && keycode <= maxKeycode_; ++keycode) {
            if ((keymap->keys[keycode / 8] & (1U << (keycode % 8))) != 0) {
                fakeKey(static_cast<std::uint8_t>(keycode), false);
            }
        }
        if ((modifierState() & XCB_BUTTON_MASK_1) != 0) {
            setLeftButton(false);
        }
        XcbDisplay::sync(connection_);
        readEvents();
        readKeyboardMapping(minKeycode_, maxKeycode_ - minKeycode_ + 1);
    }
    record();
}

void XcbInputInjector::record() {
    if (recordAtom_ == XCB_ATOM_NONE) {
        return;
    }
    std::vector<std::uint32_t> values{static_cast<std::uint32_t>(::getpid())};
    for (const auto& spare : spareKeys_) {
        if (spare.keysym != XKB_KEY_NoSymbol) {
            values.push_back(spare.keycode);
        }
    }
    xcb_change_property(connection_, XCB_PROP_MODE_REPLACE, root_, recordAtom_, XCB_ATOM_CARDINAL,
                        32, static_cast<std::uint32_t>(values.size()), values.data());
}

ScreenSize XcbInputInjector::screenSize() {
    // Asked every time rather than followed through RANDR: one small round trip, and right
    // whichever way the screen changed.
    const XcbOwned<xcb_get_geometry_reply_t> geometry(
        xcb_get_geometry_reply(connection_, xcb_get_geometry(connection_, root_), nullptr));
    if (geometry) {
        size_ = {geometry->width, geometry->height};
    }
    return size_;
}

void XcbInputInjector::movePointer(int x, int y) {
    xcb_test_fake_input(connection_, XCB_MOTION_NOTIFY, 0, XCB_CURRENT_TIME, root_, coordinate(x),
                        coordinate(y), 0);
}

void XcbInputInjector::setLeftButton(bool pressed) {
    xcb_test_fake_input(connection_, pressed ? XCB_BUTTON_PRESS : XCB_BUTTON_RELEASE, kLeftButton,
                        XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    buttonHeld_ = pressed;
}

void XcbInputInjector::setKey(NamedKey key, bool pressed) {
    const auto keysyms = keysymsFor(key);
    if (!pressed) {
        for (const auto keysym : keysyms) {
            letGo(keysym);
        }
        return;
    }
    readEvents();
    for (const auto keysym : keysyms) {
        if (keysym == XKB_KEY_NoSymbol) {
            break;
        }
        if (const auto found = findKey(keysym, 0)) {
            hold(keysym, found->keycode);
            return;
        }
    }
    if (const auto borrowed = lendSpareKey(keysyms.front())) {
        hold(keysyms.front(), *borrowed);
    }
}

bool XcbInputInjector::typeCharacter(char32_t character) {
    const xkb_keysym_t keysym = xkb_utf32_to_keysym(character);
    if (keysym == XKB_KEY_NoSymbol || lost()) {
        return false;
    }
    readEvents();
    auto found = findKey(keysym, 1);
    if (found && found->level == 1 && shiftKeycodes_.empty()) {
        found.reset();
    }
    if (!found) {
        const auto borrowed = lendSpareKey(keysym);
        if (borrowed) {
            tap(*borrowed);
        }
        return borrowed.has_value();
    }
    const std::uint8_t keycode = found->keycode;
    const xkb_keysym_t lower = keysymAt(keycode, 0);
    const xkb_keysym_t upper = keysymAt(keycode, 1);
    if (lower == upper) {
        tap(keycode);
        return true;
    }
    // What is held already decides the level as much as what is pressed now: the viewer's own
    // shift, or caps lock, which only swaps the levels of letters.
    const std::uint16_t state = modifierState();
    bool wantShift = found->level == 1;
    if ((state & XCB_MOD_MASK_LOCK) != 0 && xkb_keysym_to_upper(lower) == upper &&
        xkb_keysym_to_lower(upper) == lower) {
        wantShift = !wantShift;
    }
    const bool shifted = (state & XCB_MOD_MASK_SHIFT) != 0;
    if (wantShift && !shifted) {
        fakeKey(shiftKeycodes_.front(), true);
        tap(keycode);
        fakeKey(shiftKeycodes_.front(), false);
    } else if (!wantShift && shifted) {
        // Only a shift pressed from here can be lifted for the moment; XTEST cannot let go of
        // one held on a keyboard of the machine's own.
        std::vector<std::uint8_t> lifted;
        for (const auto& held : held_) {
            if (std::find(shiftKeycodes_.begin(), shiftKeycodes_.end(), held.keycode) !=
                shiftKeycodes_.end()) {
                lifted.push_back(held.keycode);
                fakeKey(held.keycode, false);
            }
        }
        tap(keycode);
        for (const auto again : lifted) {
            fakeKey(again, true);
        }
    } else {
        tap(keycode);
    }
    return true;
}

bool XcbInputInjector::setCharacterKey(char32_t character, bool pressed) {
    const xkb_keysym_t keysym = xkb_utf32_to_keysym(character);
    if (keysym == XKB_KEY_NoSymbol) {
        return false;
    }
    if (!pressed) {
        letGo(keysym);
        return true;
    }
    readEvents();
    const auto keycode = unshiftedKey(keysym);
    if (keycode) {
        hold(keysym, *keycode);
    }
    return keycode.has_value();
}

void XcbInputInjector::flush() {
    readEvents();
    XcbDisplay::sync(connection_);
}

void XcbInputInjector::readKeyboardMapping(int firstKeycode, int count) {
    const int first = std::max(firstKeycode, minKeycode_);
    const int last = std::min(firstKeycode + count - 1, maxKeycode_);
    if (last < first) {
        return;
    }
    const int keycodes = last - first + 1;
    const XcbOwned<xcb_get_keyboard_mapping_reply_t> reply(xcb_get_keyboard_mapping_reply(
        connection_,
        xcb_get_keyboard_mapping(connection_, static_cast<xcb_keycode_t>(first),
                                 static_cast<std::uint8_t>(keycodes)),
        nullptr));
    if (!reply) {
        return;
    }
    const int width = reply->keysyms_per_keycode;
    const int length = xcb_get_keyboard_mapping_keysyms_length(reply.get());
    if (width == 0 || length != width * keycodes) {
        return;
    }
    const bool whole = first == minKeycode_ && last == maxKeycode_;
    if (!whole && width != keysymsPerKeycode_) {
        readKeyboardMapping(minKeycode_, maxKeycode_ - minKeycode_ + 1);
        return;
    }
    const xcb_keysym_t* keysyms = xcb_get_keyboard_mapping_keysyms(reply.get());
    if (whole) {
        keysyms_.assign(keysyms, keysyms + length);
        keysymsPerKeycode_ = width;
    } else {
        std::copy(keysyms, keysyms + length,
                  keysyms_.begin() + static_cast<std::ptrdiff_t>(first - minKeycode_) * width);
    }
    // A borrowed keycode someone else has since bound is theirs now.
    std::erase_if(spareKeys_, [this](SpareKey& spare) {
        const auto* row =
            &keysyms_[static_cast<std::size_t>(spare.keycode - minKeycode_) * keysymsPerKeycode_];
        if (std::all_of(row, row + keysymsPerKeycode_,
                        [](xcb_keysym_t keysym) { return keysym == XKB_KEY_NoSymbol; })) {
            spare.keysym = XKB_KEY_NoSymbol;
            return false;
        }
        return row[0] != spare.keysym;
    });
}

void XcbInputInjector::readModifierMapping() {
    const XcbOwned<xcb_get_modifier_mapping_reply_t> reply(xcb_get_modifier_mapping_reply(
        connection_, xcb_get_modifier_mapping(connection_), nullptr));
    if (!reply) {
        return;
    }
    const int perModifier = reply->keycodes_per_modifier;
    const int length = xcb_get_modifier_mapping_keycodes_length(reply.get());
    if (length != perModifier * 8) {
        return;
    }
    const xcb_keycode_t* keycodes = xcb_get_modifier_mapping_keycodes(reply.get());
    shiftKeycodes_.clear();
    modifierKeycodes_.clear();
    for (int i = 0; i < length; ++i) {
        if (keycodes[i] == 0) {
            continue;
        }
        modifierKeycodes_.push_back(keycodes[i]);
        if (i < perModifier) {
            shiftKeycodes_.push_back(keycodes[i]);
        }
    }
}

void XcbInputInjector::readEvents() {
    int first = std::numeric_limits<int>::max();
    int last = std::numeric_limits<int>::min();
    bool modifiers = false;
    for (int read = 0; read < kMaxEventsRead; ++read) {
        const XcbOwned<xcb_generic_event_t> event(xcb_poll_for_event(connection_));
        if (!event) {
            break;
        }
        // Errors of requests sent unchecked come here too; a refused fake event is simply lost.
        if ((event->response_type & 0x7F) != XCB_MAPPING_NOTIFY) {
            continue;
        }
        const auto* notify = reinterpret_cast<const xcb_mapping_notify_event_t*>(event.get());
        if (notify->request == XCB_MAPPING_KEYBOARD) {
            first = std::min<int>(first, notify->first_keycode);
            last = std::max<int>(last, notify->first_keycode + notify->count - 1);
        } else if (notify->request == XCB_MAPPING_MODIFIER) {
            modifiers = true;
        }
    }
    if (first <= last) {
        readKeyboardMapping(first, last - first + 1);
    }
    if (modifiers) {
        readModifierMapping();
    }
}

std::uint32_t XcbInputInjector::keysymAt(int keycode, int level) const {
    if (keycode < minKeycode_ || keycode > maxKeycode_ || keysymsPerKeycode_ == 0) {
        return XKB_KEY_NoSymbol;
    }
    const auto* row =
        &keysyms_[static_cast<std::size_t>(keycode - minKeycode_) * keysymsPerKeycode_];
    const xkb_keysym_t first = row[0];
    const xkb_keysym_t second = keysymsPerKeycode_ > 1 ? row[1] : XKB_KEY_NoSymbol;
    if (second != XKB_KEY_NoSymbol) {
        return level == 0 ? first : second;
    }
    // The core protocol's reading of a key with one keysym: a letter stands for both its cases.
    return level == 0 ? xkb_keysym_to_lower(first) : xkb_keysym_to_upper(first);
}

std::optional<XcbInputInjector::KeyLevel> XcbInputInjector::findKey(std::uint32_t keysym,
                                                                    int highestLevel) const {
    for (int level = 0; level <= highestLevel; ++level) {
        for (int keycode = minKeycode_; keycode <= maxKeycode_; ++keycode) {
            if (keysymAt(keycode, level) == keysym) {
                return KeyLevel{static_cast<std::uint8_t>(keycode), level};
            }
        }
    }
    return std::nullopt;
}

bool XcbInputInjector::isSpare(int keycode) const {
    return std::any_of(spareKeys_.begin(), spareKeys_.end(),
                       [keycode](const SpareKey& spare) { return spare.keycode == keycode; });
}

bool XcbInputInjector::isHeld(int keycode) const {
    return std::any_of(held_.begin(), held_.end(),
                       [keycode](const HeldKey& held) { return held.keycode == keycode; });
}

void XcbInputInjector::collectSpareKeys() {
    for (int keycode = maxKeycode_; keycode >= minKeycode_ && spareKeys_.size() < kMaxSpareKeys;
         --keycode) {
        const auto* row =
            &keysyms_[static_cast<std::size_t>(keycode - minKeycode_) * keysymsPerKeycode_];
        const bool unbound =
            std::all_of(row, row + keysymsPerKeycode_,
                        [](xcb_keysym_t keysym) { return keysym == XKB_KEY_NoSymbol; }) &&
            std::find(modifierKeycodes_.begin(), modifierKeycodes_.end(), keycode) ==
                modifierKeycodes_.end();
        if (unbound && !isHeld(keycode) && !isSpare(keycode)) {
            spareKeys_.push_back({static_cast<std::uint8_t>(keycode), XKB_KEY_NoSymbol, {}});
        }
    }
}

std::optional<std::uint8_t> XcbInputInjector::lendSpareKey(std::uint32_t keysym) {
    if (spareKeys_.empty()) {
        collectSpareKeys();
    }
    // The one typed longest ago; never-typed ones first.
    std::size_t chosen = spareKeys_.size();
    for (std::size_t i = 0; i < spareKeys_.size(); ++i) {
        if (!isHeld(spareKeys_[i].keycode) &&
            (chosen == spareKeys_.size() ||
             spareKeys_[i].lastTyped < spareKeys_[chosen].lastTyped)) {
            chosen = i;
        }
    }
    if (chosen == spareKeys_.size() || keysymsPerKeycode_ == 0) {
        return std::nullopt;
    }
    const auto settled = spareKeys_[chosen].lastTyped + kRemapSettle;
    if (Clock::now() < settled) {
        xcb_flush(connection_);
        std::this_thread::sleep_until(settled);
    }
    const std::uint8_t keycode = spareKeys_[chosen].keycode;
    // Both levels, so that neither shift nor caps lock makes it something else.
    const int width = std::max(2, keysymsPerKeycode_);
    std::vector<xcb_keysym_t> row(static_cast<std::size_t>(width), XKB_KEY_NoSymbol);
    row[0] = keysym;
    row[1] = keysym;
    const XcbOwned<xcb_generic_error_t> refused(xcb_request_check(
        connection_, xcb_change_keyboard_mapping_checked(
                         connection_, 1, keycode, static_cast<std::uint8_t>(width), row.data())));
    if (refused || lost()) {
        spareKeys_.erase(spareKeys_.begin() + static_cast<std::ptrdiff_t>(chosen));
        return std::nullopt;
    }
    spareKeys_[chosen].keysym = keysym;
    spareKeys_[chosen].lastTyped = Clock::now();
    record();
    if (width == keysymsPerKeycode_) {
        std::copy(row.begin(), row.end(),
                  keysyms_.begin() + static_cast<std::ptrdiff_t>(keycode - minKeycode_) * width);
    } else {
        readKeyboardMapping(minKeycode_, maxKeycode_ - minKeycode_ + 1);
    }
    return keycode;
}

void XcbInputInjector::giveBackSpareKeys() {
    readEvents();
    Clock::time_point lastTyped;
    for (const auto& spare : spareKeys_) {
        if (spare.keysym != XKB_KEY_NoSymbol) {
            lastTyped = std::max(lastTyped, spare.lastTyped);
        }
    }
    if (lastTyped == Clock::time_point()) {
        return;
    }
    if (Clock::now() < lastTyped + kRemapSettle) {
        xcb_flush(connection_);
        std::this_thread::sleep_until(lastTyped + kRemapSettle);
    }
    const std::vector<xcb_keysym_t> unbound(static_cast<std::size_t>(keysymsPerKeycode_),
                                            XKB_KEY_NoSymbol);
    for (const auto& spare : spareKeys_) {
        if (spare.keysym != XKB_KEY_NoSymbol) {
            xcb_change_keyboard_mapping(connection_, 1, spare.keycode,
                                        static_cast<std::uint8_t>(keysymsPerKeycode_),
                                        unbound.data());
        }
    }
    spareKeys_.clear();
}

std::optional<std::uint8_t> XcbInputInjector::unshiftedKey(std::uint32_t keysym) {
    if (const auto found = findKey(keysym, 0)) {
        return found->keycode;
    }
    return lendSpareKey(keysym);
}

void XcbInputInjector::hold(std::uint32_t keysym, std::uint8_t keycode) {
    fakeKey(keycode, true);
    if (std::none_of(held_.begin(), held_.end(),
                     [keysym](const HeldKey& held) { return held.keysym == keysym; })) {
        held_.push_back({keysym, keycode});
    }
}

void XcbInputInjector::letGo(std::uint32_t keysym) {
    const auto held = std::find_if(held_.begin(), held_.end(),
                                   [keysym](const HeldKey& key) { return key.keysym == keysym; });
    if (held != held_.end()) {
        fakeKey(held->keycode, false);
        held_.erase(held);
    }
}

void XcbInputInjector::fakeKey(std::uint8_t keycode, bool pressed) {
    xcb_test_fake_input(connection_, pressed ? XCB_KEY_PRESS : XCB_KEY_RELEASE, keycode,
                        XCB_CURRENT_TIME, XCB_NONE, 0, 0, 0);
    for (auto& spare : spareKeys_) {
        if (spare.keycode == keycode) {
            spare.lastTyped = Clock::now();
        }
    }
}

void XcbInputInjector::tap(std::uint8_t keycode) {
    fakeKey(keycode, true);
    fakeKey(keycode, false);
}

std::uint16_t XcbInputInjector::modifierState() {
    const XcbOwned<xcb_query_pointer_reply_t> pointer(
        xcb_query_pointer_reply(connection_, xcb_query_pointer(connection_, root_), nullptr));
    return pointer ? pointer->mask : 0;
}

bool XcbInputInjector::lost() const {
    return xcb_connection_has_error(connection_) != 0;
}

}  // namespace velmorand
