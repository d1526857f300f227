// velmorand_event_recorder: the desktop application the end-to-end tests operate. A window over
// the whole screen, painted in four quadrants of known colours, that prints what reaches it as one
// JSON line per event:
//   {"event":"ready"}  once it is mapped and has the keyboard focus
//   {"event":"press","button":1,"x":…,"y":…}, "release" alike, {"event":"motion","x":…,"y":…}
//   {"event":"key","keycode":…,"keysym":"a","text":"a","ctrl":false,"shift":false}
// Positions are screen pixels. Commands on standard input, one a line: "turn" turns the pattern a
// quarter, "animate on" / "animate off" move a marker along the top edge, so that the screen
// keeps changing. It ends when standard input closes, on SIGTERM, or when the X server goes.
//
// velmorand_event_recorder [DISPLAY]   (default: $DISPLAY)
#include <poll.h>
#include <unistd.h>
#include <xcb/xcb.h>
#include <xkbcommon/xkbcommon.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};
template <typename T>
using Reply = std::unique_ptr<T, FreeDeleter>;

// Top left, top right, bottom left, bottom right: what stream-e2e.mjs looks for.
constexpr std::array<std::array<std::uint8_t, 3>, 4> kPalette{{
    {220, 40, 40},
    {40, 180, 70},
    {40, 80, 220},
    {235, 200, 40},
}};
constexpr int kMarkerSize = 48;
constexpr int kMarkerStep = 24;
constexpr int kAnimationMs = 33;

void emit(const std::string& line) {
    std::fputs(line.c_str(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
}

std::string quoted(std::string_view text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (byte < 0x20 || byte == 0x7F) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", byte);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

class Recorder {
  public:
    explicit Recorder(xcb_connection_t* connection)
        : connection_(connection),
          screen_(xcb_setup_roots_iterator(xcb_get_setup(connection)).data) {}

    bool open() {
        readKeyboardMapping();
        window_ = xcb_generate_id(connection_);
        // No window manager runs: the window places itself and stays put.
        const std::uint32_t values[] = {
            screen_->black_pixel, 1,
            XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_STRUCTURE_NOTIFY |
                XCB_EVENT_MASK_BUTTON_PRESS | XCB_EVENT_MASK_BUTTON_RELEASE |
                XCB_EVENT_MASK_POINTER_MOTION | XCB_EVENT_MASK_KEY_PRESS};
        xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window_, screen_->root, 0, 0,
                          screen_->width_in_pixels, screen_->height_in_pixels, 0,
                          XCB_WINDOW_CLASS_INPUT_OUTPUT, screen_->root_visual,
                          XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
        gc_ = xcb_generate_id(connection_);
        xcb_create_gc(connection_, gc_, window_, 0, nullptr);
        xcb_map_window(connection_, window_);
        xcb_flush(connection_);
        return xcb_connection_has_error(connection_) == 0;
    }

    int run() {
        using Clock = std::chrono::steady_clock;
        std::string input;
        auto nextMove = Clock::now();
        for (;;) {
            while (auto* raw = xcb_poll_for_event(connection_)) {
                const Reply<xcb_generic_event_t> event(raw);
                handle(*event);
            }
            if (xcb_connection_has_error(connection_) != 0) {
                return 1;
            }
            xcb_flush(connection_);
            std::array<pollfd, 2> fds{
                {{xcb_get_file_descriptor(connection_), POLLIN, 0}, {STDIN_FILENO, POLLIN, 0}}};
            int timeout = -1;
            if (animating_) {
                const auto now = Clock::now();
                if (now >= nextMove) {
                    moveMarker();
                    nextMove = now + std::chrono::milliseconds(kAnimationMs);
                }
                timeout = static_cast<int>(
                    std::chrono::ceil<std::chrono::milliseconds>(nextMove - now).count());
            }
            if (::poll(fds.data(), fds.size(), timeout) <= 0) {
                continue;
            }
            if (fds[1].revents != 0) {
                char buffer[256];
                const auto count = ::read(STDIN_FILENO, buffer, sizeof buffer);
                if (count <= 0) {
                    return 0;
                }
                input.append(buffer, static_cast<std::size_t>(count));
                for (auto end = input.find('\n'); end != std::string::npos;
                     end = input.find('\n')) {
                    command(input.substr(0, end));
                    input.erase(0, end + 1);
                }
                if (input.size() > sizeof buffer) {
                    input.clear();
                }
            }
        }
    }

  private:
    void handle(const xcb_generic_event_t& event) {
        switch (event.response_type & 0x7F) {
            case XCB_MAP_NOTIFY:
                // Without a window manager nobody else hands out the focus.
                xcb_set_input_focus(connection_, XCB_INPUT_FOCUS_POINTER_ROOT, window_,
                                    XCB_CURRENT_TIME);
                paint();
                if (hasFocus()) {
                    emit(R"({"event":"ready"})");
                } else {
                    emit(R"({"event":"error","what":"the window did not get the focus"})");
                }
                break;
            case XCB_EXPOSE:
                if (reinterpret_cast<const xcb_expose_event_t&>(event).count == 0) {
                    paint();
                }
                break;
            case XCB_BUTTON_PRESS:
            case XCB_BUTTON_RELEASE: {
                const auto& button = reinterpret_cast<const xcb_button_press_event_t&>(event);
                emit(std::string(R"({"event":")") +
                     ((event.response_type & 0x7F) == XCB_BUTTON_PRESS ? "press" : "release") +
                     R"(","button":)" + std::to_string(button.detail) + R"(,"x":)" +
                     std::to_string(button.root_x) + R"(,"y":)" + std::to_string(button.root_y) +
                     "}");
                break;
            }
            case XCB_MOTION_NOTIFY: {
                const auto& motion = reinterpret_cast<const xcb_motion_notify_event_t&>(event);
                emit(R"({"event":"motion","x":)" + std::to_string(motion.root_x) + R"(,"y":)" +
                     std::to_string(motion.root_y) + "}");
                break;
            }
            case XCB_KEY_PRESS:
                key(reinterpret_cast<const xcb_key_press_event_t&>(event));
                break;
            case XCB_MAPPING_NOTIFY: {
                // Whoever types characters the layout lacks rebinds keycodes as it goes; a key
                // is read by the mapping in force when its event is handled, as any client does.
                const auto& mapping = reinterpret_cast<const xcb_mapping_notify_event_t&>(event);
                if (mapping.request == XCB_MAPPING_KEYBOARD) {
                    readKeyboardMapping();
                }
                break;
            }
            default:
                break;
        }
    }

    void key(const xcb_key_press_event_t& event) {
        const std::uint16_t state = event.state;
        const xkb_keysym_t keysym = keysymOf(event.detail, state);
        char name[64] = "";
        if (xkb_keysym_get_name(keysym, name, sizeof name) < 0) {
            name[0] = '\0';
        }
        char text[16] = "";
        if (xkb_keysym_to_utf8(keysym, text, sizeof text) <= 0) {
            text[0] = '\0';
        }
        const auto flag = [state](std::uint16_t mask) {
            return (state & mask) != 0 ? "true" : "false";
        };
        emit(R"({"event":"key","keycode":)" + std::to_string(event.detail) + R"(,"keysym":)" +
             quoted(name) + R"(,"text":)" + quoted(text) + R"(,"ctrl":)" +
             flag(XCB_MOD_MASK_CONTROL) + R"(,"shift":)" + flag(XCB_MOD_MASK_SHIFT) + "}");
    }

    // The core protocol's first group: shift picks the second keysym, caps lock does for
    // letters; a key with one keysym stands for both cases of a letter.
    xkb_keysym_t keysymOf(xcb_keycode_t keycode, std::uint16_t state) const {
        const int index = keycode - minKeycode_;
        if (perKeycode_ == 0 || index < 0 ||
            static_cast<std::size_t>(index + 1) * perKeycode_ > keysyms_.size()) {
            return XKB_KEY_NoSymbol;
        }
        const xcb_keysym_t* row = &keysyms_[static_cast<std::size_t>(index) * perKeycode_];
        xkb_keysym_t lower = row[0];
        xkb_keysym_t upper = perKeycode_ > 1 ? row[1] : XKB_KEY_NoSymbol;
        if (upper == XKB_KEY_NoSymbol) {
            upper = xkb_keysym_to_upper(lower);
            lower = xkb_keysym_to_lower(lower);
        }
        bool shifted = (state & XCB_MOD_MASK_SHIFT) != 0;
        if ((state & XCB_MOD_MASK_LOCK) != 0 && lower != upper &&
            xkb_keysym_to_upper(lower) == upper) {
            shifted = !shifted;
        }
        return shifted ? upper : lower;
    }

    void readKeyboardMapping() {
        const xcb_setup_t* setup = xcb_get_setup(connection_);
        minKeycode_ = setup->min_keycode;
        const auto count = static_cast<std::uint8_t>(setup->max_keycode - setup->min_keycode + 1);
        const Reply<xcb_get_keyboard_mapping_reply_t> reply(xcb_get_keyboard_mapping_reply(
            connection_, xcb_get_keyboard_mapping(connection_, setup->min_keycode, count),
            nullptr));
        if (!reply) {
            return;
        }
        const xcb_keysym_t* keysyms = xcb_get_keyboard_mapping_keysyms(reply.get());
        keysyms_.assign(keysyms, keysyms + xcb_get_keyboard_mapping_keysyms_length(reply.get()));
        perKeycode_ = reply->keysyms_per_keycode;
    }

    // The tests start Xvfb at depth 24, whose visual is 0xRRGGBB.
    static std::uint32_t pixel(const std::array<std::uint8_t, 3>& rgb) {
        return std::uint32_t{rgb[0]} << 16 | std::uint32_t{rgb[1]} << 8 | rgb[2];
    }

    void fill(std::uint32_t colour, int x, int y, int width, int height) {
        xcb_change_gc(connection_, gc_, XCB_GC_FOREGROUND, &colour);
        const xcb_rectangle_t box{static_cast<std::int16_t>(x), static_cast<std::int16_t>(y),
                                  static_cast<std::uint16_t>(width),
                                  static_cast<std::uint16_t>(height)};
        xcb_poly_fill_rectangle(connection_, window_, gc_, 1, &box);
    }

    // The quadrants down to `bottom` (the whole screen by default), and the marker.
    void paint(int bottom = 1 << 16) {
        const int halfW = screen_->width_in_pixels / 2;
        const int halfH = screen_->height_in_pixels / 2;
        for (int i = 0; i < 4; ++i) {
            const int top = (i / 2) * halfH;
            const int end = std::min(bottom, i / 2 == 0 ? halfH : screen_->height_in_pixels);
            if (top < end) {
                fill(pixel(kPalette[(static_cast<std::size_t>(i) + 4 - turns_ % 4) % 4]),
                     (i % 2) * halfW, top, i % 2 == 0 ? halfW : screen_->width_in_pixels - halfW,
                     end - top);
            }
        }
        if (animating_) {
            fill(screen_->black_pixel, marker_, 0, kMarkerSize, kMarkerSize);
        }
        xcb_flush(connection_);
    }

    void moveMarker() {
        marker_ = (marker_ + kMarkerStep) % (screen_->width_in_pixels - kMarkerSize);
        paint(kMarkerSize);
    }

    void command(std::string_view line) {
        if (line == "turn") {
            ++turns_;
        } else if (line == "animate on" || line == "animate off") {
            animating_ = line == "animate on";
        } else {
            emit(R"({"event":"error","what":)" + quoted("unknown command " + std::string(line)) +
                 "}");
            return;
        }
        paint();
    }

    bool hasFocus() {
        const Reply<xcb_get_input_focus_reply_t> reply(
            xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
        return reply && reply->focus == window_;
    }

    xcb_connection_t* connection_;
    xcb_screen_t* screen_;
    xcb_window_t window_ = 0;
    xcb_gcontext_t gc_ = 0;
    std::vector<xcb_keysym_t> keysyms_;
    int minKeycode_ = 0;
    std::size_t perKeycode_ = 0;
    unsigned turns_ = 0;
    bool animating_ = false;
    int marker_ = 0;
};

}  // namespace

int main(int argc, char** argv) {
    // Whatever the parent ignored, these end the recorder.
    std::signal(SIGTERM, SIG_DFL);
    std::signal(SIGPIPE, SIG_DFL);
    const char* display = argc > 1 ? argv[1] : nullptr;
    xcb_connection_t* connection = xcb_connect(display, nullptr);
    if (xcb_connection_has_error(connection) != 0) {
        std::fprintf(stderr, "velmorand_event_recorder: cannot open display %s\n",
                     display != nullptr ? display : "(DISPLAY)");
        xcb_disconnect(connection);
        return 1;
    }
    Recorder recorder(connection);
    const int status = recorder.open() ? recorder.run() : 1;
    xcb_disconnect(connection);
    return status;
}
