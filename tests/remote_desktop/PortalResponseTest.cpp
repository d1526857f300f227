#include "velmorand/portal/PortalResponse.h"

#include <gio/gio.h>
#include <gtest/gtest.h>

#include <string>

namespace velmorand {
namespace {

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

}  // namespace
}  // namespace velmorand
