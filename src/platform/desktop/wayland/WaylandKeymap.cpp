#include "velmorand/wayland/WaylandKeymap.h"

#include <poll.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>
#include <wayland-client.h>
#include <xkbcommon/xkbcommon.h>

#include <chrono>
#include <cstring>

namespace velmorand {
namespace {

// A keymap is a few tens of kilobytes; past this it is not one.
constexpr std::uint32_t kLargestKeymap = 4 * 1024 * 1024;
constexpr auto kReplyTimeout = std::chrono::seconds(5);

struct Client {
    wl_display* display = nullptr;
    wl_registry* registry = nullptr;
    wl_seat* seat = nullptr;
    wl_keyboard* keyboard = nullptr;
    bool hasKeyboard = false;
    std::optional<std::string> keymap;

    ~Client() {
        if (keyboard != nullptr) {
            wl_keyboard_destroy(keyboard);
        }
        if (seat != nullptr) {
            wl_seat_destroy(seat);
        }
        if (registry != nullptr) {
            wl_registry_destroy(registry);
        }
        if (display != nullptr) {
            wl_display_disconnect(display);
        }
    }
};

void onGlobal(void* data, wl_registry* registry, std::uint32_t name, const char* interface,
              std::uint32_t) {
    auto* client = static_cast<Client*>(data);
    if (client->seat == nullptr && std::strcmp(interface, wl_seat_interface.name) == 0) {
        client->seat =
            static_cast<wl_seat*>(wl_registry_bind(registry, name, &wl_seat_interface, 1));
    }
}

void onGlobalRemove(void*, wl_registry*, std::uint32_t) {}

const wl_registry_listener kRegistryListener{onGlobal, onGlobalRemove};

void onCapabilities(void* data, wl_seat*, std::uint32_t capabilities) {
    static_cast<Client*>(data)->hasKeyboard = (capabilities & WL_SEAT_CAPABILITY_KEYBOARD) != 0;
}

const wl_seat_listener kSeatListener{onCapabilities, nullptr};

void onKeymap(void* data, wl_keyboard*, std::uint32_t format, std::int32_t fd, std::uint32_t size) {
    auto* client = static_cast<Client*>(data);
    struct stat file {};
    // A file shorter than the size it came with would end the process when read past its end.
    if (format == WL_KEYBOARD_KEYMAP_FORMAT_XKB_V1 && size > 0 && size <= kLargestKeymap &&
        ::fstat(fd, &file) == 0 && static_cast<std::uint64_t>(file.st_size) >= size) {
        void* mapped = ::mmap(nullptr, size, PROT_READ, MAP_PRIVATE, fd, 0);
        if (mapped != MAP_FAILED) {
            // The text ends with its NUL, within the size.
            client->keymap = std::string(static_cast<const char*>(mapped),
                                         ::strnlen(static_cast<const char*>(mapped), size));
            ::munmap(mapped, size);
        }
    }
    ::close(fd);
}

void onEnter(void*, wl_keyboard*, std::uint32_t, wl_surface*, wl_array*) {}
void onLeave(void*, wl_keyboard*, std::uint32_t, wl_surface*) {}
void onKey(void*, wl_keyboard*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) {}
void onModifiers(void*, wl_keyboard*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t,
                 std::uint32_t) {}

const wl_keyboard_listener kKeyboardListener{onKeymap, onEnter,     onLeave,
                                             onKey,    onModifiers, nullptr};

// One round trip to the compositor, bounded in time: a compositor that does not answer is not
// waited for.
bool roundTrip(wl_display* display) {
    wl_callback* done = wl_display_sync(display);
    bool answered = false;
    static const wl_callback_listener kListener{
        [](void* data, wl_callback*, std::uint32_t) { *static_cast<bool*>(data) = true; }};
    wl_callback_add_listener(done, &kListener, &answered);
    const auto deadline = std::chrono::steady_clock::now() + kReplyTimeout;
    while (!answered) {
        while (wl_display_prepare_read(display) != 0) {
            if (wl_display_dispatch_pending(display) < 0) {
                wl_callback_destroy(done);
                return false;
            }
        }
        wl_display_flush(display);
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        pollfd descriptor{wl_display_get_fd(display), POLLIN, 0};
        if (left.count() <= 0 || ::poll(&descriptor, 1, static_cast<int>(left.count())) <= 0) {
            wl_display_cancel_read(display);
            wl_callback_destroy(done);
            return false;
        }
        if (wl_display_read_events(display) < 0 || wl_display_dispatch_pending(display) < 0) {
            wl_callback_destroy(done);
            return false;
        }
    }
    wl_callback_destroy(done);
    return true;
}

}  // namespace

std::variant<WaylandKeymap, std::string> WaylandKeymap::read() {
    Client client;
    client.display = wl_display_connect(nullptr);
    if (client.display == nullptr) {
        return std::string("cannot connect to the Wayland compositor");
    }
    client.registry = wl_display_get_registry(client.display);
    wl_registry_add_listener(client.registry, &kRegistryListener, &client);
    if (!roundTrip(client.display) || client.seat == nullptr) {
        return std::string("the Wayland compositor offers no seat");
    }
    wl_seat_add_listener(client.seat, &kSeatListener, &client);
    if (!roundTrip(client.display) || !client.hasKeyboard) {
        return std::string("the Wayland compositor's seat has no keyboard");
    }
    client.keyboard = wl_seat_get_keyboard(client.seat);
    wl_keyboard_add_listener(client.keyboard, &kKeyboardListener, &client);
    if (!roundTrip(client.display) || !client.keymap) {
        return std::string("the Wayland compositor sent no keymap");
    }
    auto keymap = fromText(*client.keymap);
    if (!keymap) {
        return std::string("the Wayland compositor's keymap does not parse");
    }
    return std::move(*keymap);
}

std::optional<WaylandKeymap> WaylandKeymap::fromText(const std::string& text) {
    xkb_context* context = xkb_context_new(XKB_CONTEXT_NO_DEFAULT_INCLUDES);
    if (context == nullptr) {
        return std::nullopt;
    }
    xkb_keymap* keymap = xkb_keymap_new_from_string(
        context, text.c_str(), XKB_KEYMAP_FORMAT_TEXT_V1, XKB_KEYMAP_COMPILE_NO_FLAGS);
    xkb_context_unref(context);
    if (keymap == nullptr) {
        return std::nullopt;
    }
    WaylandKeymap result;
    const xkb_keycode_t last = xkb_keymap_max_keycode(keymap);
    for (xkb_keycode_t key = xkb_keymap_min_keycode(keymap); key <= last; ++key) {
        const xkb_level_index_t levels = xkb_keymap_num_levels_for_key(keymap, key, 0);
        for (xkb_level_index_t level = 0; level < levels && level < 3; ++level) {
            const xkb_keysym_t* keysyms = nullptr;
            const int count = xkb_keymap_key_get_syms_by_level(keymap, key, 0, level, &keysyms);
            for (int i = 0; i < count; ++i) {
                result.typable_.insert(keysyms[i]);
            }
        }
    }
    xkb_keymap_unref(keymap);
    return result;
}

}  // namespace velmorand
