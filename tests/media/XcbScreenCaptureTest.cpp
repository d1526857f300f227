#include "velmorand/x11/XcbScreenCapture.h"

#include <gtest/gtest.h>

#include <string>
#include <variant>

#include "ScopedEnv.h"
#include "Xvfb.h"

// What a broadcast started where capture cannot work says; the browser tests capture a live
// screen.
namespace velmorand {
namespace {

TEST(XcbScreenCaptureOpenTest, NamesTheExtensionTheServerLacks) {
    for (const char* extension : {"MIT-SHM", "DAMAGE", "XFIXES", "RANDR"}) {
        testing::Xvfb xvfb(320, 240, {"-extension", extension});
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
