#include "velmorand/x11/XcbScreenCapture.h"

#include "XcbDisplay.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ipc.h>
#include <sys/shm.h>
#include <unistd.h>
#include <xcb/damage.h>
#include <xcb/randr.h>
#include <xcb/shm.h>
#include <xcb/xcb.h>
#include <xcb/xfixes.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <string>
#include <system_error>

namespace velmorand {
namespace {

// Moving the pointer damages nothing, and X11 tells only the window under the pointer that it
// moved. So while a wait would block, the pointer's position is compared with the one last drawn,
// this often: one tiny round trip, and a cursor that lags by this much still feels live.
constexpr auto kCursorPoll = std::chrono::milliseconds(50);
// Bounds the shared segment (1 GiB) whatever size the server claims.
constexpr int kMaxSide = 16384;
constexpr int kBytesPerPixel = 4;

CaptureError lostConnection() {
    return {"the X server closed the connection"};
}

std::optional<CaptureError> unusable(ScreenSize size) {
    if (size.width > 0 && size.height > 0 && size.width <= kMaxSide && size.height <= kMaxSide) {
        return std::nullopt;
    }
    return CaptureError{"the screen's size, " + std::to_string(size.width) + "x" +
                        std::to_string(size.height) + ", is beyond what screen capture takes"};
}

std::size_t segmentBytes(ScreenSize size) {
    return static_cast<std::size_t>(size.width) * static_cast<std::size_t>(size.height) *
           kBytesPerPixel;
}

// Grabs are handed on as B, G, R, X bytes with no conversion, so the screen must store its
// pixels that way already.
bool storesBgrx(const xcb_setup_t* setup, const xcb_screen_t* screen) {
    if (setup->image_byte_order != XCB_IMAGE_ORDER_LSB_FIRST ||
        (screen->root_depth != 24 && screen->root_depth != 32)) {
        return false;
    }
    bool wordPerPixel = false;
    for (auto formats = xcb_setup_pixmap_formats_iterator(setup); formats.rem > 0;
         xcb_format_next(&formats)) {
        if (formats.data->depth == screen->root_depth) {
            wordPerPixel = formats.data->bits_per_pixel == 32 && formats.data->scanline_pad == 32;
        }
    }
    if (!wordPerPixel) {
        return false;
    }
    for (auto depths = xcb_screen_allowed_depths_iterator(screen); depths.rem > 0;
         xcb_depth_next(&depths)) {
        for (auto visuals = xcb_depth_visuals_iterator(depths.data); visuals.rem > 0;
             xcb_visualtype_next(&visuals)) {
            const auto* visual = visuals.data;
            if (visual->visual_id == screen->root_visual) {
                return visual->_class == XCB_VISUAL_CLASS_TRUE_COLOR &&
                       visual->red_mask == 0xFF0000 && visual->green_mask == 0x00FF00 &&
                       visual->blue_mask == 0x0000FF;
            }
        }
    }
    return false;
}

// Blends the cursor over a grab, clipped to the screen.
void drawCursor(const xcb_xfixes_get_cursor_image_reply_t* cursor, std::uint8_t* pixels,
                ScreenSize size, int stride) {
    const int width = cursor->width;
    const int height = cursor->height;
    const int length = xcb_xfixes_get_cursor_image_cursor_image_length(cursor);
    if (width <= 0 || height <= 0 || length < width * height) {
        return;
    }
    const std::uint32_t* argb = xcb_xfixes_get_cursor_image_cursor_image(cursor);
    const int left = cursor->x - cursor->xhot;
    const int top = cursor->y - cursor->yhot;
    const int x0 = std::max(0, left);
    const int y0 = std::max(0, top);
    const int x1 = std::min(size.width, left + width);
    const int y1 = std::min(size.height, top + height);
    for (int y = y0; y < y1; ++y) {
        std::uint8_t* row = pixels + static_cast<std::size_t>(y) * stride;
        const std::uint32_t* source = argb + static_cast<std::size_t>(y - top) * width;
        for (int x = x0; x < x1; ++x) {
            const std::uint32_t pixel = source[x - left];
            const auto alpha = static_cast<int>(pixel >> 24);
            if (alpha == 0) {
                continue;
            }
            std::uint8_t* target = row + static_cast<std::size_t>(x) * kBytesPerPixel;
            // Premultiplied, and its word holds B, G, R from the low byte up as the screen does.
            for (int channel = 0; channel < 3; ++channel) {
                const auto over = static_cast<int>((pixel >> (8 * channel)) & 0xFF);
                const int blended = over + (target[channel] * (255 - alpha) + 127) / 255;
                target[channel] = static_cast<std::uint8_t>(std::min(blended, 255));
            }
        }
    }
}

}  // namespace

std::variant<std::unique_ptr<ScreenCapture>, CaptureError> XcbScreenCapture::open(
    const char* displayName) {
    auto opened = XcbDisplay::open(displayName, "screen capture");
    if (auto* error = std::get_if<std::string>(&opened)) {
        return CaptureError{std::move(*error)};
    }
    auto& display = std::get<XcbDisplay>(opened);
    auto& connection = display.connection;
    const xcb_setup_t* setup = xcb_get_setup(connection.get());
    const xcb_screen_t* screen = display.screen;
    if (!storesBgrx(setup, screen)) {
        return CaptureError{
            "the X server's screen is not 24-bit TrueColor stored as 32-bit "
            "BGRX, the only pixel format screen capture takes"};
    }
    const std::pair<xcb_extension_t*, const char*> extensions[] = {
        {&xcb_shm_id, "MIT-SHM"},
        {&xcb_damage_id, "DAMAGE"},
        {&xcb_xfixes_id, "XFIXES"},
        {&xcb_randr_id, "RANDR"},
    };
    for (const auto& [extension, _] : extensions) {
        xcb_prefetch_extension_data(connection.get(), extension);
    }
    for (const auto& [extension, extensionName] : extensions) {
        const auto* present = xcb_get_extension_data(connection.get(), extension);
        if (present == nullptr || present->present == 0) {
            return CaptureError{std::string("the X server lacks the ") + extensionName +
                                " extension"};
        }
    }
    const int wakeFd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (wakeFd < 0) {
        return CaptureError{"cannot make an eventfd: " + std::system_category().message(errno)};
    }
    std::unique_ptr<XcbScreenCapture> capture(
        new XcbScreenCapture(connection.release(), screen->root, wakeFd));
    if (auto error = capture->setUp()) {
        return std::move(*error);
    }
    return std::unique_ptr<ScreenCapture>(std::move(capture));
}

XcbScreenCapture::XcbScreenCapture(xcb_connection_t* connection, std::uint32_t root, int wakeFd)
    : connection_(connection), root_(root), wakeFd_(wakeFd) {}

XcbScreenCapture::~XcbScreenCapture() {
    // Closing the connection frees the damage object and the server's hold on the segment.
    releaseSegment();
    xcb_disconnect(connection_);
    ::close(wakeFd_);
}

std::optional<CaptureError> XcbScreenCapture::setUp() {
    // DAMAGE and XFIXES refuse every request until their version has been asked.
    auto* c = connection_;
    const auto shmVersion = xcb_shm_query_version(c);
    const auto damageVersion =
        xcb_damage_query_version(c, XCB_DAMAGE_MAJOR_VERSION, XCB_DAMAGE_MINOR_VERSION);
    const auto xfixesVersion =
        xcb_xfixes_query_version(c, XCB_XFIXES_MAJOR_VERSION, XCB_XFIXES_MINOR_VERSION);
    const auto randrVersion =
        xcb_randr_query_version(c, XCB_RANDR_MAJOR_VERSION, XCB_RANDR_MINOR_VERSION);
    const XcbOwned<xcb_shm_query_version_reply_t> shm(
        xcb_shm_query_version_reply(c, shmVersion, nullptr));
    const XcbOwned<xcb_damage_query_version_reply_t> damage(
        xcb_damage_query_version_reply(c, damageVersion, nullptr));
    const XcbOwned<xcb_xfixes_query_version_reply_t> xfixes(
        xcb_xfixes_query_version_reply(c, xfixesVersion, nullptr));
    const XcbOwned<xcb_randr_query_version_reply_t> randr(
        xcb_randr_query_version_reply(c, randrVersion, nullptr));
    if (lost()) {
        return lostConnection();
    }
    if (!shm || !damage || damage->major_version < 1 || !xfixes || xfixes->major_version < 1 ||
        !randr) {
        return CaptureError{
            "the X server did not agree on a version of MIT-SHM, DAMAGE, XFIXES "
            "or RANDR"};
    }
    damageEvent_ = xcb_get_extension_data(c, &xcb_damage_id)->first_event;
    xfixesEvent_ = xcb_get_extension_data(c, &xcb_xfixes_id)->first_event;
    randrEvent_ = xcb_get_extension_data(c, &xcb_randr_id)->first_event;

    damage_ = xcb_generate_id(c);
    const xcb_void_cookie_t requests[] = {
        xcb_damage_create_checked(c, damage_, root_, XCB_DAMAGE_REPORT_LEVEL_NON_EMPTY),
        xcb_xfixes_select_cursor_input_checked(c, root_,
                                               XCB_XFIXES_CURSOR_NOTIFY_MASK_DISPLAY_CURSOR),
        xcb_randr_select_input_checked(c, root_, XCB_RANDR_NOTIFY_MASK_SCREEN_CHANGE),
    };
    for (const auto request : requests) {
        if (XcbOwned<xcb_generic_error_t> error{xcb_request_check(c, request)}) {
            return CaptureError{"the X server refused to report changes to the screen (X error " +
                                std::to_string(error->error_code) + ")"};
        }
    }
    readScreenSize();
    if (auto error = unusable(size_)) {
        return error;
    }
    CaptureError error;
    if (!ensureSegment(segmentBytes(size_), error)) {
        return error;
    }
    return std::nullopt;
}

bool XcbScreenCapture::waitForChange(Clock::time_point deadline) {
    for (;;) {
        if (lost()) {
            return true;
        }
        checkCursorMoved();
        // Round trips read events into XCB's own queue, where poll(2) cannot see them; drain
        // after the last one.
        drainEvents();
        if (changed_ || lost()) {
            return true;
        }
        const auto now = Clock::now();
        if (now >= deadline) {
            return false;
        }
        const auto until = std::min(deadline, now + kCursorPoll);
        const auto timeout = std::chrono::ceil<std::chrono::milliseconds>(until - now);
        xcb_flush(connection_);
        pollfd watched[] = {{xcb_get_file_descriptor(connection_), POLLIN, 0},
                            {wakeFd_, POLLIN, 0}};
        const int ready = ::poll(watched, 2, static_cast<int>(timeout.count()));
        if (ready < 0 && errno != EINTR) {
            return false;
        }
        if (ready > 0 && (watched[1].revents & POLLIN) != 0) {
            std::uint64_t wakes = 0;
            if (::read(wakeFd_, &wakes, sizeof wakes) < 0) {
                // Cannot fail once poll(2) found it readable; the wait ends either way.
            }
            drainEvents();
            return changed_ || lost();
        }
    }
}

void XcbScreenCapture::wake() {
    const std::uint64_t one = 1;
    if (::write(wakeFd_, &one, sizeof one) < 0) {
        // Only a counter near overflow refuses, and then a wake is pending anyway.
    }
}

ScreenSize XcbScreenCapture::size() {
    drainEvents();
    return size_;
}

std::variant<ScreenImage, CaptureError> XcbScreenCapture::grab() {
    if (lost()) {
        return lostConnection();
    }
    drainEvents();
    // A resize that lands between reading the size and grabbing fails the grab; one more try
    // at the new size covers it.
    for (int attempt = 0; attempt < 2; ++attempt) {
        bool sizeMoved = false;
        auto grabbed = grabOnce(sizeMoved);
        if (!sizeMoved) {
            return grabbed;
        }
    }
    return CaptureError{"the screen kept changing size while being grabbed"};
}

std::variant<ScreenImage, CaptureError> XcbScreenCapture::grabOnce(bool& sizeMoved) {
    const ScreenSize size = size_;
    if (auto error = unusable(size)) {
        return std::move(*error);
    }
    CaptureError error;
    if (!ensureSegment(segmentBytes(size), error)) {
        return error;
    }
    auto* c = connection_;
    changed_ = false;
    // DAMAGE reports again once its region is emptied. Emptying it here rather than on each
    // report means one report per grab, however busy the screen, and what was damaged before
    // this point is in this grab.
    xcb_damage_subtract(c, damage_, XCB_NONE, XCB_NONE);
    const auto imageRequest = xcb_shm_get_image(
        c, root_, 0, 0, static_cast<std::uint16_t>(size.width),
        static_cast<std::uint16_t>(size.height), ~0U, XCB_IMAGE_FORMAT_Z_PIXMAP, segment_, 0);
    const auto cursorRequest = xcb_xfixes_get_cursor_image(c);
    xcb_generic_error_t* imageError = nullptr;
    const XcbOwned<xcb_shm_get_image_reply_t> image(
        xcb_shm_get_image_reply(c, imageRequest, &imageError));
    const XcbOwned<xcb_generic_error_t> failure(imageError);
    const XcbOwned<xcb_xfixes_get_cursor_image_reply_t> cursor(
        xcb_xfixes_get_cursor_image_reply(c, cursorRequest, nullptr));
    if (!image) {
        changed_ = true;
        if (lost()) {
            return lostConnection();
        }
        if (failure && failure->error_code == XCB_MATCH) {
            readScreenSize();
            if (size_ != size) {
                sizeMoved = true;
                return CaptureError{};
            }
        }
        return CaptureError{"grabbing the screen failed (X error " +
                            std::to_string(failure ? failure->error_code : 0) + ")"};
    }
    const int stride = size.width * kBytesPerPixel;
    if (cursor) {
        cursor_ = {cursor->x, cursor->y};
        drawCursor(cursor.get(), shared_, size, stride);
    }
    return ScreenImage{shared_, size.width, size.height, stride};
}

void XcbScreenCapture::drainEvents() {
    for (;;) {
        bool resized = false;
        while (XcbOwned<xcb_generic_event_t> event{xcb_poll_for_event(connection_)}) {
            const auto type = static_cast<std::uint8_t>(event->response_type & 0x7F);
            if (type == damageEvent_ + XCB_DAMAGE_NOTIFY ||
                type == xfixesEvent_ + XCB_XFIXES_CURSOR_NOTIFY) {
                changed_ = true;
            } else if (type == randrEvent_ + XCB_RANDR_SCREEN_CHANGE_NOTIFY) {
                changed_ = true;
                resized = true;
            }
        }
        if (!resized || lost()) {
            return;
        }
        // The root window's geometry is the truth; events may have come in during the round
        // trip, so go round again.
        readScreenSize();
    }
}

void XcbScreenCapture::checkCursorMoved() {
    const XcbOwned<xcb_query_pointer_reply_t> pointer(
        xcb_query_pointer_reply(connection_, xcb_query_pointer(connection_, root_), nullptr));
    if (pointer && pointer->same_screen != 0 &&
        Cursor{pointer->root_x, pointer->root_y} != cursor_) {
        changed_ = true;
    }
}

void XcbScreenCapture::readScreenSize() {
    const XcbOwned<xcb_get_geometry_reply_t> geometry(
        xcb_get_geometry_reply(connection_, xcb_get_geometry(connection_, root_), nullptr));
    if (geometry) {
        size_ = {geometry->width, geometry->height};
    }
}

bool XcbScreenCapture::lost() {
    return xcb_connection_has_error(connection_) != 0;
}

bool XcbScreenCapture::ensureSegment(std::size_t bytes, CaptureError& error) {
    if (shared_ != nullptr && sharedBytes_ >= bytes) {
        return true;
    }
    releaseSegment();
    const int id = ::shmget(IPC_PRIVATE, bytes, IPC_CREAT | 0600);
    if (id < 0) {
        error = {"cannot make a shared memory segment of " + std::to_string(bytes) +
                 " bytes: " + std::system_category().message(errno)};
        return false;
    }
    void* address = ::shmat(id, nullptr, 0);
    if (address == reinterpret_cast<void*>(-1)) {
        error = {"cannot map a shared memory segment: " + std::system_category().message(errno)};
        ::shmctl(id, IPC_RMID, nullptr);
        return false;
    }
    const std::uint32_t segment = xcb_generate_id(connection_);
    const XcbOwned<xcb_generic_error_t> refused(
        xcb_request_check(connection_, xcb_shm_attach_checked(connection_, segment, id, 0)));
    // Marked for removal once both sides hold it: the system frees it when the last of them lets
    // go, even if this process dies without cleaning up.
    ::shmctl(id, IPC_RMID, nullptr);
    if (refused || lost()) {
        ::shmdt(address);
        error = lost() ? lostConnection()
                       : CaptureError{
                             "the X server cannot share memory with this process (is it "
                             "on another machine?)"};
        return false;
    }
    segment_ = segment;
    shared_ = static_cast<std::uint8_t*>(address);
    sharedBytes_ = bytes;
    return true;
}

void XcbScreenCapture::releaseSegment() {
    if (shared_ == nullptr) {
        return;
    }
    if (!lost()) {
        xcb_shm_detach(connection_, segment_);
    }
    ::shmdt(shared_);
    shared_ = nullptr;
    sharedBytes_ = 0;
    segment_ = 0;
}

}  // namespace velmorand
