// Desktop services on a private bus: that those the bus starts on demand (the portal among them)
// are found before they run; what the desktop portal's answers grant, and what becomes of a
// session it closes, against a portal of the test's own; and how opening a session of GNOME's
// compositor ends, against a compositor of the test's own that announces the picture's stream
// when the row says.
#include "velmorand/gnome/GnomeRemoteDesktop.h"
#include "velmorand/portal/PortalRemoteDesktop.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>
#include <utility>

#include "PrivateBus.h"
#include "ScriptedBusService.h"
#include "velmorand/portal/PortalResponse.h"

namespace velmorand {
namespace {

using namespace std::chrono_literals;
using testing::ScriptedBusService;

constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kSessionPath = "/org/freedesktop/portal/desktop/session/1";
constexpr const char* kOnDemand = "org.velmorand.Test.OnDemand";

TEST(DBusSessionTest, AServiceStartedOnDemandIsStartedOnceAndFound) {
    const testing::PrivateBus bus(
        {testing::PrivateBus::OnDemand{kOnDemand, VELMORAND_OWN_BUS_NAME}});
    const auto dbus = bus.session();
    ASSERT_NE(dbus, nullptr) << "no private bus";

    EXPECT_EQ(dbus->owner(kOnDemand), std::nullopt) << "started by merely asking who owns it";
    const auto started = dbus->startedOwner(kOnDemand);
    ASSERT_TRUE(started.has_value()) << "not started";
    EXPECT_TRUE(started->starts_with(":")) << *started;
    EXPECT_EQ(dbus->startedOwner(kOnDemand), started) << "started twice";
    EXPECT_EQ(dbus->startedOwner("org.velmorand.Test.Nobody"), std::nullopt);
}

// The portal's answer to Start, as the text GVariant prints: what is granted, or why nothing is
// (and whether that was the person's own answer, which is not asked again).
TEST(PortalResponseTest, TheStartsAnswerIsAGrantOrAReason) {
    using Denied = SessionDenied;
    const Denied noStream{"the desktop portal granted no screen-cast stream"};
    const struct {
        std::uint32_t code;
        const char* results;
        std::variant<PortalGrant, SessionDenied> read;
    } rows[] = {
        {0,
         "{'streams': <[(uint32 57, {'size': <(1280, 720)>})]>, 'devices': <uint32 3>, "
         "'restore_token': <'abc'>}",
         PortalGrant{57, {1280, 720}, 3, "abc"}},
        {0, "{'streams': <[(uint32 9, @a{sv} {})]>, 'restore_token': <''>}",
         PortalGrant{9, {0, 0}, 0, std::nullopt}},
        {1, "@a{sv} {}",
         Denied{"the person at the device did not allow the screen to be shared", true}},
        {2, "@a{sv} {}", Denied{"the desktop portal could not share the screen (response 2)"}},
        {0, "@a{sv} {}", noStream},
        {0, "{'streams': <@a(ua{sv}) []>}", noStream},
        {0, "{'streams': <'not a list'>}", noStream},
        {0, "('not', 'a dictionary')", Denied{"the desktop portal answered with no results"}},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.results);
        GVariant* results = g_variant_ref_sink(g_variant_new_parsed(row.results));
        const auto read = readStartResponse(row.code, results);
        g_variant_unref(results);
        ASSERT_EQ(read.index(), row.read.index());
        if (const auto* grant = std::get_if<PortalGrant>(&read)) {
            EXPECT_EQ(*grant, std::get<PortalGrant>(row.read));
        } else {
            EXPECT_EQ(std::get<Denied>(read).reason, std::get<Denied>(row.read).reason);
            EXPECT_EQ(std::get<Denied>(read).theirAnswer, std::get<Denied>(row.read).theirAnswer);
        }
    }
}

// A portal that grants the keyboard, the pointer and the screen at once. Each request is answered
// on the path its token names, before the call's reply, as the portal may.
GVariant* grantingPortal(ScriptedBusService& service, const ScriptedBusService::Call& call) {
    if (call.property().ends_with(".version")) {
        return g_variant_new("(v)", g_variant_new_uint32(4));
    }
    if (call.path != kPortalPath || call.member.starts_with("Notify")) {
        return g_variant_new("()");
    }
    GVariant* options =
        g_variant_get_child_value(call.arguments, g_variant_n_children(call.arguments) - 1);
    const gchar* token = "";
    g_variant_lookup(options, "handle_token", "&s", &token);
    std::string sender = call.sender.substr(1);
    std::replace(sender.begin(), sender.end(), '.', '_');
    const std::string request = std::string(kPortalPath) + "/request/" + sender + "/" + token;
    g_variant_unref(options);
    const std::string results =
        call.member == "CreateSession" ? std::string("{'session_handle': <'") + kSessionPath + "'>}"
        : call.member == "Start"
            ? "{'streams': <[(uint32 42, {'size': <(1280, 800)>})]>, 'devices': <uint32 3>}"
            : "@a{sv} {}";
    service.emit(request, "org.freedesktop.portal.Request", "Response",
                 g_variant_new("(u@a{sv})", 0U, g_variant_new_parsed(results.c_str())));
    return g_variant_new("(o)", request.c_str());
}

TEST(PortalRemoteDesktopTest, ASessionThePortalClosedWasStoppedAtTheDeviceAndIsNotClosedAgain) {
    for (const bool closedByPortal : {false, true}) {
        SCOPED_TRACE(closedByPortal ? "closed by the portal" : "still open");
        const testing::PrivateBus bus;
        ScriptedBusService service(bus.address(), {"org.freedesktop.portal.Desktop"},
                                   grantingPortal);
        ASSERT_TRUE(service.serving()) << "no private bus, or its name was taken";
        {
            auto opened =
                PortalRemoteDesktop::open(bus.session(), {.input = true, .restoreToken = {}});
            const auto* desktop = std::get_if<std::shared_ptr<PortalRemoteDesktop>>(&opened);
            ASSERT_NE(desktop, nullptr) << std::get<SessionDenied>(opened).reason;
            if (closedByPortal) {
                service.emit(kSessionPath, "org.freedesktop.portal.Session", "Closed",
                             g_variant_new_parsed("(@a{sv} {},)"));
                // The signal arrives on the bus's own thread.
                const auto deadline = std::chrono::steady_clock::now() + 2s;
                while ((*desktop)->ended() == SessionEnd::none &&
                       std::chrono::steady_clock::now() < deadline) {
                    std::this_thread::sleep_for(10ms);
                }
            }
            EXPECT_EQ((*desktop)->ended(),
                      closedByPortal ? SessionEnd::stoppedAtDevice : SessionEnd::none);
        }
        const auto calls = service.calls();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), "org.freedesktop.portal.Session.Close"),
                  closedByPortal ? 0 : 1);
    }
}

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
    // What the compositor does after Start, and the reason opening failed (empty: it opened).
    const std::pair<AfterStart, std::string> rows[] = {
        {AfterStart::streamBeforeReply, ""},
        {AfterStart::streamLater, ""},
        {AfterStart::closedLater, "GNOME's screen cast announced no PipeWire stream"},
    };
    for (const auto& [after, reason] : rows) {
        SCOPED_TRACE(static_cast<int>(after));
        const testing::PrivateBus bus;
        ScriptedBusService service(
            bus.address(), {GnomeRemoteDesktop::kBusName, "org.gnome.Mutter.ScreenCast"},
            [after = after](ScriptedBusService& self, const ScriptedBusService::Call& call) {
                return compositor(self, call, after);
            });
        ASSERT_TRUE(service.serving()) << "no private bus, or its names were taken";
        const auto started = std::chrono::steady_clock::now();
        {
            auto opened = GnomeRemoteDesktop::open(bus.session());
            // Opening gives up after 5 s without a stream; each of these is decided well before.
            EXPECT_LT(std::chrono::steady_clock::now() - started, 2500ms);
            if (const auto* failure = std::get_if<std::string>(&opened)) {
                EXPECT_EQ(*failure, reason);
            } else {
                const auto& desktop = *std::get<std::shared_ptr<GnomeRemoteDesktop>>(opened);
                EXPECT_EQ(reason, "");
                EXPECT_EQ(desktop.pipeWireNode(), 42U);
                EXPECT_EQ(desktop.screenSize(), (ScreenSize{1280, 800}));
            }
        }
        // A session the compositor closed is not stopped again; one still running is.
        const auto calls = service.calls();
        EXPECT_EQ(std::count(calls.begin(), calls.end(), kStop), reason.empty() ? 1 : 0);
    }
}

}  // namespace
}  // namespace velmorand
