// velmorand_bench_scene: a moving picture for the stream benchmarks. On $DISPLAY, a window over
// the whole screen repaints at a steady rate a scene that changes everywhere every frame (bands of
// coloured bars scrolling sideways at different speeds under a brightness gradient rolling
// downwards: motion a video codec can predict, with a residual it cannot), with the wall-clock
// time (CLOCK_REALTIME, µs) drawn in as a block code (TimeCode.h), taken just before the picture
// is handed to the X server.
//
//   velmorand_bench_scene [--fps N] [--still]
// --still paints once and keeps the window. Prints "ready" on stdout once the first picture is on
// the screen. Ends on SIGTERM or SIGINT, or when the X server goes.
#include <signal.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <time.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "SceneOptions.h"
#include "ScenePicture.h"
#include "TimeCode.h"

namespace {

using velmorand::bench::drawTimeCode;
using velmorand::bench::kBytesPerPixel;
using velmorand::bench::ScenePicture;

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};
template <typename T>
using Owned = std::unique_ptr<T, FreeDeleter>;

std::uint64_t realtimeUs() {
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1'000'000U +
           static_cast<std::uint64_t>(now.tv_nsec) / 1000U;
}

std::int64_t monotonicNs() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1'000'000'000 + now.tv_nsec;
}

int fail(const std::string& message) {
    std::fprintf(stderr, "velmorand_bench_scene: %s\n", message.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    const auto parsed = velmorand::bench::parseSceneOptions(argc, argv, "velmorand_bench_scene");
    if (const auto* status = std::get_if<int>(&parsed)) {
        return *status;
    }
    const auto [fps, still] = std::get<velmorand::bench::SceneOptions>(parsed);

    // Taken synchronously below: no handler can interrupt a request half-written.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    sigprocmask(SIG_BLOCK, &stopSignals, nullptr);

    int screenNumber = 0;
    xcb_connection_t* c = xcb_connect(nullptr, &screenNumber);
    if (xcb_connection_has_error(c) != 0) {
        return fail("cannot open the X display");
    }
    const struct Disconnect {
        xcb_connection_t* c;
        ~Disconnect() { xcb_disconnect(c); }
    } disconnect{c};
    auto screens = xcb_setup_roots_iterator(xcb_get_setup(c));
    for (int i = 0; i < screenNumber && screens.rem > 0; ++i) {
        xcb_screen_next(&screens);
    }
    const xcb_screen_t* screen = screens.data;
    if (screen == nullptr || (screen->root_depth != 24 && screen->root_depth != 32)) {
        return fail("the screen is not 24-bit TrueColor");
    }
    const int width = screen->width_in_pixels;
    const int height = screen->height_in_pixels;
    const int stride = width * kBytesPerPixel;

    const Owned<xcb_shm_query_version_reply_t> shm(
        xcb_shm_query_version_reply(c, xcb_shm_query_version(c), nullptr));
    if (!shm) {
        return fail("the X server lacks MIT-SHM");
    }
    const std::size_t bytes = static_cast<std::size_t>(stride) * static_cast<std::size_t>(height);
    const int shmId = shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
    if (shmId < 0) {
        return fail("shmget failed");
    }
    void* mapped = shmat(shmId, nullptr, 0);
    if (mapped == reinterpret_cast<void*>(-1)) {
        shmctl(shmId, IPC_RMID, nullptr);
        return fail("shmat failed");
    }
    auto* pixels = static_cast<std::uint8_t*>(mapped);
    const xcb_shm_seg_t segment = xcb_generate_id(c);
    const Owned<xcb_generic_error_t> refused(xcb_request_check(
        c, xcb_shm_attach_checked(c, segment, static_cast<std::uint32_t>(shmId), 0)));
    // Freed by the system once both sides let go, however this process ends.
    shmctl(shmId, IPC_RMID, nullptr);
    if (refused) {
        return fail("cannot share memory with the X server");
    }
    const std::uint8_t completionEvent = xcb_get_extension_data(c, &xcb_shm_id)->first_event;

    // Override-redirect: there is no window manager on a bench's own server, and none must move
    // or decorate the window if there is one.
    const xcb_window_t window = xcb_generate_id(c);
    const std::uint32_t values[] = {screen->black_pixel, 1,
                                    XCB_EVENT_MASK_EXPOSURE | XCB_EVENT_MASK_STRUCTURE_NOTIFY};
    xcb_create_window(c, XCB_COPY_FROM_PARENT, window, screen->root, 0, 0,
                      static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height), 0,
                      XCB_WINDOW_CLASS_INPUT_OUTPUT, screen->root_visual,
                      XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT | XCB_CW_EVENT_MASK, values);
    const xcb_gcontext_t gc = xcb_generate_id(c);
    xcb_create_gc(c, gc, window, 0, nullptr);
    xcb_map_window(c, window);
    xcb_flush(c);
    // Painting before the window is viewable would be thrown away.
    for (;;) {
        const Owned<xcb_generic_event_t> event(xcb_wait_for_event(c));
        if (!event) {
            return fail("the X server closed the connection");
        }
        if ((event->response_type & 0x7F) == XCB_EXPOSE) {
            break;
        }
    }

    const ScenePicture scene(width, height);
    const auto period = static_cast<std::int64_t>(1e9 / fps);
    const std::int64_t start = monotonicNs();
    std::int64_t next = start;
    bool announced = false;
    for (;;) {
        // Motion follows the clock in steps of 1/60 s, not the frame count: a frame skipped under
        // load does not slow the scene down, and the speed is the same at any --fps.
        scene.paint(pixels, stride, (monotonicNs() - start) * 60 / 1'000'000'000);
        drawTimeCode(pixels, stride, width, height, realtimeUs());
        xcb_shm_put_image(c, window, gc, static_cast<std::uint16_t>(width),
                          static_cast<std::uint16_t>(height), 0, 0,
                          static_cast<std::uint16_t>(width), static_cast<std::uint16_t>(height), 0,
                          0, screen->root_depth, XCB_IMAGE_FORMAT_Z_PIXMAP, 1, segment, 0);
        xcb_flush(c);
        // The server reads the segment after the request: the next frame is drawn into it only
        // once the server says it is done, or the screen would show half of each.
        for (;;) {
            const Owned<xcb_generic_event_t> event(xcb_wait_for_event(c));
            if (!event) {
                return fail("the X server closed the connection");
            }
            const auto type = static_cast<std::uint8_t>(event->response_type & 0x7F);
            if (type == completionEvent + XCB_SHM_COMPLETION) {
                break;
            }
            if (event->response_type == 0) {
                return fail("the X server refused a request (X error " +
                            std::to_string(
                                reinterpret_cast<xcb_generic_error_t*>(event.get())->error_code) +
                            ")");
            }
        }
        if (!announced) {
            std::printf("ready %dx%d\n", width, height);
            std::fflush(stdout);
            announced = true;
        }
        if (still) {
            while (sigwaitinfo(&stopSignals, nullptr) < 0) {
            }
            return 0;
        }
        next += period;
        const std::int64_t now = monotonicNs();
        if (next < now) {
            // Late (the machine is busy): skip the missed frames rather than rush to catch up.
            next = now;
        }
        const std::int64_t wait = next - now;
        const timespec timeout{static_cast<time_t>(wait / 1'000'000'000),
                               static_cast<long>(wait % 1'000'000'000)};
        if (sigtimedwait(&stopSignals, nullptr, &timeout) > 0) {
            return 0;
        }
    }
}
