// What the desktop portal's answers grant, and what becomes of a session it closes, against a
// portal of the test's own on a private bus.
#include "velmorand/portal/PortalRemoteDesktop.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <string>
#include <thread>

#include "PrivateBus.h"
#include "ScriptedBusService.h"
#include "velmorand/portal/PortalResponse.h"

namespace velmorand {
namespace {

using namespace std::chrono_literals;
using testing::ScriptedBusService;

constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kSessionPath = "/org/freedesktop/portal/desktop/session/1";

// The portal's answer to Start, as the text GVariant prints: what is granted, or why nothing is
// (and whether that was the person's own answer, which is not asked again).
TEST(PortalResponseTest, TheStartsAnswerIsAGrantOrAReason) {
    using Denied = SessionDenied;
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
        {0, "@a{sv} {}", Denied{"the desktop portal granted no screen-cast stream"}},
        {0, "{'streams': <@a(ua{sv}) []>}",
         Denied{"the desktop portal granted no screen-cast stream"}},
        {0, "{'streams': <'not a list'>}",
         Denied{"the desktop portal granted no screen-cast stream"}},
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

}  // namespace
}  // namespace velmorand
