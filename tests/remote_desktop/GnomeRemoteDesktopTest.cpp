// Opening a session of GNOME's compositor, against a compositor of the test's own on a private
// bus that announces the picture's stream when the row says.
#include "velmorand/gnome/GnomeRemoteDesktop.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>

#include "PrivateBus.h"
#include "ScriptedBusService.h"

namespace velmorand {
namespace {

using namespace std::chrono_literals;
using testing::ScriptedBusService;

constexpr const char* kSession = "/org/gnome/Mutter/RemoteDesktop/Session/u1";
constexpr const char* kStream = "/org/gnome/Mutter/ScreenCast/Stream/u1";
constexpr const char* kStop = "org.gnome.Mutter.RemoteDesktop.Session.Stop";

// What the compositor does once it has been asked to start.
enum class AfterStart { streamBeforeReply, streamLater, closedLater };

GVariant* compositor(ScriptedBusService& service, const ScriptedBusService::Call& call,
                     AfterStart after) {
    const auto property = call.property();
    if (property.ends_with(".Version")) {
        return g_variant_new("(v)", g_variant_new_int32(1));
    }
    if (property.ends_with(".SessionId")) {
        return g_variant_new("(v)", g_variant_new_string("u1"));
    }
    if (property.ends_with(".Parameters")) {
        GVariantBuilder parameters;
        g_variant_builder_init(&parameters, G_VARIANT_TYPE_VARDICT);
        g_variant_builder_add(&parameters, "{sv}", "size", g_variant_new("(ii)", 1280, 800));
        return g_variant_new("(v)", g_variant_builder_end(&parameters));
    }
    if (call.member == "CreateSession") {
        return g_variant_new("(o)", call.interface.ends_with("ScreenCast")
                                        ? "/org/gnome/Mutter/ScreenCast/Session/u1"
                                        : kSession);
    }
    if (call.member == "RecordMonitor") {
        return g_variant_new("(o)", kStream);
    }
    const auto announce = [&service] {
        service.emit(kStream, "org.gnome.Mutter.ScreenCast.Stream", "PipeWireStreamAdded",
                     g_variant_new("(u)", 42U));
    };
    if (call.member == "Start" && after == AfterStart::streamBeforeReply) {
        announce();
    } else if (call.member == "Start" && after == AfterStart::streamLater) {
        service.after(300ms, announce);
    } else if (call.member == "Start") {
        service.after(300ms, [&service] {
            service.emit(kSession, "org.gnome.Mutter.RemoteDesktop.Session", "Closed",
                         g_variant_new("()"));
        });
    }
    return g_variant_new("()");
}

TEST(GnomeRemoteDesktopTest, OpeningEndsAsSoonAsTheStreamIsAnnouncedOrTheSessionCloses) {
    const struct {
        AfterStart after;
        // The reason opening failed; empty when it opened.
        std::string failure;
    } rows[] = {
        {AfterStart::streamBeforeReply, ""},
        {AfterStart::streamLater, ""},
        {AfterStart::closedLater, "GNOME's screen cast announced no PipeWire stream"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(static_cast<int>(row.after));
        const testing::PrivateBus bus;
        ScriptedBusService service(
            bus.address(), {GnomeRemoteDesktop::kBusName, "org.gnome.Mutter.ScreenCast"},
            [after = row.after](ScriptedBusService& self, const ScriptedBusService::Call& call) {
                return compositor(self, call, after);
            });
        ASSERT_TRUE(service.serving()) << "no private bus, or its names were taken";
        const auto started = std::chrono::steady_clock::now();
        {
            auto opened = GnomeRemoteDesktop::open(bus.session());
            // Opening gives up after 5 s without a stream; each of these is decided well before.
            EXPECT_LT(std::chrono::steady_clock::now() - started, 2500ms);
            if (const auto* failure = std::get_if<std::string>(&opened)) {
                EXPECT_EQ(*failure, row.failure);
            } else {
                const auto& desktop = *std::get<std::shared_ptr<GnomeRemoteDesktop>>(opened);
                EXPECT_EQ(row.failure, "");
                EXPECT_EQ(desktop.pipeWireNode(), 42U);
                EXPECT_EQ(desktop.screenSize(), (ScreenSize{1280, 800}));
            }
        }
        // A session the compositor closed is not stopped again; one still running is.
        const auto calls = service.calls();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), kStop), row.failure.empty() ? 1 : 0);
    }
}

}  // namespace
}  // namespace velmorand
