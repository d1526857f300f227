#include "velmorand/x11/XcbScreenCapture.h"

#include <gtest/gtest.h>
#include <xcb/randr.h>
#include <xcb/xcb.h>

#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <variant>

#include "ScopedEnv.h"
#include "Xvfb.h"

namespace velmorand {
namespace {

using namespace std::chrono_literals;
using Clock = ScreenCapture::Clock;

constexpr int kScreenWidth = 320;
constexpr int kScreenHeight = 240;
// The painted window, away from where the server starts the pointer (the screen's centre).
constexpr int kWindowX = 16;
constexpr int kWindowY = 16;
constexpr int kWindowWidth = 96;
constexpr int kWindowHeight = 64;
constexpr int kInsideX = kWindowX + kWindowWidth / 2;
constexpr int kInsideY = kWindowY + kWindowHeight / 2;
constexpr std::uint32_t kRed = 0xFF0000;
constexpr std::uint32_t kBlue = 0x0000FF;
// Long enough for the server to have reported anything that happened, short enough to keep
// the suite quick.
constexpr auto kQuiet = 200ms;
constexpr auto kLong = 5s;

// The test's own client: it shows a window of one colour, repaints it, moves the pointer and
// resizes the screen.
class Painter {
  public:
    explicit Painter(const std::string& display)
        : connection_(xcb_connect(display.c_str(), nullptr)) {}
    ~Painter() { xcb_disconnect(connection_); }
    Painter(const Painter&) = delete;
    Painter& operator=(const Painter&) = delete;

    bool connected() { return xcb_connection_has_error(connection_) == 0; }

    void showWindow(std::uint32_t rgb) {
        window_ = xcb_generate_id(connection_);
        const std::uint32_t values[] = {rgb, 1};
        xcb_create_window(connection_, XCB_COPY_FROM_PARENT, window_, root(), kWindowX, kWindowY,
                          kWindowWidth, kWindowHeight, 0, XCB_WINDOW_CLASS_INPUT_OUTPUT,
                          XCB_COPY_FROM_PARENT, XCB_CW_BACK_PIXEL | XCB_CW_OVERRIDE_REDIRECT,
                          values);
        xcb_map_window(connection_, window_);
        sync();
    }
    void repaint(std::uint32_t rgb) {
        xcb_change_window_attributes(connection_, window_, XCB_CW_BACK_PIXEL, &rgb);
        xcb_clear_area(connection_, 0, window_, 0, 0, 0, 0);
        sync();
    }
    void movePointer(int x, int y) {
        xcb_warp_pointer(connection_, XCB_NONE, root(), 0, 0, 0, 0, static_cast<std::int16_t>(x),
                         static_cast<std::int16_t>(y));
        sync();
    }
    // False when the server cannot change its screen's size. Xvfb's one CRTC spans the whole
    // screen and the screen cannot shrink under it, so it is switched off first.
    bool resizeScreen(int width, int height) {
        std::free(xcb_randr_query_version_reply(
            connection_, xcb_randr_query_version(connection_, 1, 6), nullptr));
        auto* resources = xcb_randr_get_screen_resources_current_reply(
            connection_, xcb_randr_get_screen_resources_current(connection_, root()), nullptr);
        if (resources == nullptr) {
            return false;
        }
        const auto* crtcs = xcb_randr_get_screen_resources_current_crtcs(resources);
        for (int i = 0; i < xcb_randr_get_screen_resources_current_crtcs_length(resources); ++i) {
            std::free(xcb_randr_set_crtc_config_reply(
                connection_,
                xcb_randr_set_crtc_config(connection_, crtcs[i], XCB_CURRENT_TIME,
                                          resources->config_timestamp, 0, 0, XCB_NONE,
                                          XCB_RANDR_ROTATION_ROTATE_0, 0, nullptr),
                nullptr));
        }
        std::free(resources);
        const auto millimetres = [](int pixels) {  // at 96 dots per inch
            return static_cast<std::uint32_t>(pixels * 254 / (96 * 10));
        };
        auto* error = xcb_request_check(
            connection_,
            xcb_randr_set_screen_size_checked(
                connection_, root(), static_cast<std::uint16_t>(width),
                static_cast<std::uint16_t>(height), millimetres(width), millimetres(height)));
        std::free(error);
        return error == nullptr;
    }

  private:
    xcb_window_t root() { return xcb_setup_roots_iterator(xcb_get_setup(connection_)).data->root; }
    // Returns once the server has carried out everything sent so far.
    void sync() {
        std::free(
            xcb_get_input_focus_reply(connection_, xcb_get_input_focus(connection_), nullptr));
    }

    xcb_connection_t* connection_;
    xcb_window_t window_ = 0;
};

std::uint32_t rgbAt(const ScreenImage& image, int x, int y) {
    const std::uint8_t* pixel =
        image.pixels + static_cast<std::size_t>(y) * image.stride + static_cast<std::size_t>(x) * 4;
    return static_cast<std::uint32_t>(pixel[2]) << 16 | static_cast<std::uint32_t>(pixel[1]) << 8 |
           pixel[0];
}

class XcbScreenCaptureTest : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_TRUE(xvfb_.running()) << "Xvfb did not start";
        painter_.emplace(xvfb_.display());
        ASSERT_TRUE(painter_->connected());
        painter_->showWindow(kRed);
        auto opened = XcbScreenCapture::open(xvfb_.display().c_str());
        ASSERT_TRUE(std::holds_alternative<std::unique_ptr<ScreenCapture>>(opened))
            << std::get<CaptureError>(opened).description;
        capture_ = std::move(std::get<std::unique_ptr<ScreenCapture>>(opened));
    }

    ScreenImage grab() {
        auto grabbed = capture_->grab();
        if (const auto* error = std::get_if<CaptureError>(&grabbed)) {
            ADD_FAILURE() << error->description;
            return {};
        }
        return std::get<ScreenImage>(grabbed);
    }
    bool changedWithin(Clock::duration wait) {
        return capture_->waitForChange(Clock::now() + wait);
    }

    testing::Xvfb xvfb_{kScreenWidth, kScreenHeight};
    std::optional<Painter> painter_;
    std::unique_ptr<ScreenCapture> capture_;
};

TEST_F(XcbScreenCaptureTest, GrabsTheScreenWhenItChanges) {
    EXPECT_TRUE(capture_->waitForChange(Clock::now())) << "a new capture counts as changed";
    EXPECT_EQ(capture_->size(), (ScreenSize{kScreenWidth, kScreenHeight}));
    auto image = grab();
    ASSERT_EQ(image.width, kScreenWidth);
    ASSERT_EQ(image.height, kScreenHeight);
    EXPECT_GE(image.stride, kScreenWidth * 4);
    EXPECT_EQ(rgbAt(image, kInsideX, kInsideY), kRed);
    EXPECT_FALSE(changedWithin(kQuiet)) << "nothing happened";

    painter_->repaint(kBlue);
    EXPECT_TRUE(changedWithin(kLong));
    image = grab();
    ASSERT_NE(image.pixels, nullptr);
    EXPECT_EQ(rgbAt(image, kInsideX, kInsideY), kBlue);
    EXPECT_FALSE(changedWithin(kQuiet)) << "nothing happened since the grab";
}

TEST_F(XcbScreenCaptureTest, DrawsTheCursorAndNoticesItMove) {
    grab();
    painter_->movePointer(kInsideX, kInsideY);
    EXPECT_TRUE(changedWithin(kLong)) << "the cursor moved";
    const auto image = grab();
    ASSERT_NE(image.pixels, nullptr);
    bool cursorDrawn = false;
    for (int y = kInsideY - 8; y <= kInsideY + 8; ++y) {
        for (int x = kInsideX - 8; x <= kInsideX + 8; ++x) {
            cursorDrawn = cursorDrawn || rgbAt(image, x, y) != kRed;
        }
    }
    EXPECT_TRUE(cursorDrawn) << "no cursor around the pointer";
    EXPECT_EQ(rgbAt(image, kWindowX + 2, kWindowY + 2), kRed) << "the cursor spread too far";
    EXPECT_FALSE(changedWithin(kQuiet)) << "the cursor stayed put";
}

TEST_F(XcbScreenCaptureTest, WakeEndsAWaitWithoutAChange) {
    grab();
    // From another thread during the wait, and before it, which ends the next wait.
    for (const bool duringTheWait : {true, false}) {
        std::thread waker;
        if (duringTheWait) {
            waker = std::thread([this] {
                std::this_thread::sleep_for(100ms);
                capture_->wake();
            });
        } else {
            capture_->wake();
        }
        const auto started = Clock::now();
        EXPECT_FALSE(changedWithin(kLong)) << duringTheWait;
        EXPECT_LT(Clock::now() - started, kLong / 2) << duringTheWait;
        if (waker.joinable()) {
            waker.join();
        }
    }
}

TEST_F(XcbScreenCaptureTest, FollowsAResize) {
    grab();
    if (!painter_->resizeScreen(kScreenWidth * 3 / 4, kScreenHeight * 3 / 4)) {
        GTEST_SKIP() << "this Xvfb does not let RandR change its screen's size";
    }
    EXPECT_TRUE(changedWithin(kLong));
    EXPECT_EQ(capture_->size(), (ScreenSize{kScreenWidth * 3 / 4, kScreenHeight * 3 / 4}));
    const auto image = grab();
    ASSERT_NE(image.pixels, nullptr);
    EXPECT_EQ(image.width, kScreenWidth * 3 / 4);
    EXPECT_EQ(image.height, kScreenHeight * 3 / 4);
    EXPECT_EQ(rgbAt(image, kInsideX, kInsideY), kRed);
}

TEST_F(XcbScreenCaptureTest, ReportsALostServer) {
    grab();
    xvfb_.stop();
    const auto started = Clock::now();
    EXPECT_TRUE(changedWithin(kLong)) << "the caller must come to grab and hear of it";
    EXPECT_LT(Clock::now() - started, kLong / 2);
    auto grabbed = capture_->grab();
    ASSERT_TRUE(std::holds_alternative<CaptureError>(grabbed));
    EXPECT_EQ(std::get<CaptureError>(grabbed).description, "the X server closed the connection");
}

TEST(XcbScreenCaptureOpenTest, NamesTheExtensionTheServerLacks) {
    for (const char* extension : {"MIT-SHM", "DAMAGE", "XFIXES", "RANDR"}) {
        testing::Xvfb xvfb(kScreenWidth, kScreenHeight, {"-extension", extension});
        ASSERT_TRUE(xvfb.running()) << extension;
        auto opened = XcbScreenCapture::open(xvfb.display().c_str());
        ASSERT_TRUE(std::holds_alternative<CaptureError>(opened)) << extension;
        EXPECT_EQ(std::get<CaptureError>(opened).description,
                  std::string("the X server lacks the ") + extension + " extension");
    }
}

TEST(XcbScreenCaptureOpenTest, SaysWhyThereIsNoDisplay) {
    struct Case {
        const char* display;
        const char* wayland;
        const char* name;
        const char* error;
    };
    const Case cases[] = {
        {nullptr, nullptr, nullptr, "screen capture needs an X11 display (DISPLAY is not set)"},
        {"", "wayland-0", nullptr,
         "screen capture needs an X11 display (DISPLAY is not set; this is a Wayland session)"},
        {":0", nullptr, ":987", "cannot open X11 display :987"},
        {":987", nullptr, nullptr, "cannot open X11 display :987"},
    };
    for (const auto& c : cases) {
        const testing::ScopedEnv display("DISPLAY", c.display);
        const testing::ScopedEnv wayland("WAYLAND_DISPLAY", c.wayland);
        auto opened = XcbScreenCapture::open(c.name);
        ASSERT_TRUE(std::holds_alternative<CaptureError>(opened)) << c.error;
        EXPECT_EQ(std::get<CaptureError>(opened).description, c.error);
    }
}

}  // namespace
}  // namespace velmorand
