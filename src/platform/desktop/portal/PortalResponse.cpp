#include "velmorand/portal/PortalResponse.h"

#include <gio/gio.h>

namespace velmorand {

std::variant<PortalGrant, SessionDenied> readStartResponse(std::uint32_t code, GVariant* results) {
    if (code == 1) {
        return SessionDenied{"the person at the device did not allow the screen to be shared",
                             true};
    }
    if (code != 0) {
        return SessionDenied{"the desktop portal could not share the screen (response " +
                             std::to_string(code) + ")"};
    }
    if (results == nullptr || !g_variant_is_of_type(results, G_VARIANT_TYPE_VARDICT)) {
        return SessionDenied{"the desktop portal answered with no results"};
    }
    PortalGrant grant;
    GVariantIter* streams = nullptr;
    if (!g_variant_lookup(results, "streams", "a(ua{sv})", &streams)) {
        return SessionDenied{"the desktop portal granted no screen-cast stream"};
    }
    guint32 node = 0;
    GVariant* properties = nullptr;
    const bool first = g_variant_iter_next(streams, "(u@a{sv})", &node, &properties);
    g_variant_iter_free(streams);
    if (!first) {
        return SessionDenied{"the desktop portal granted no screen-cast stream"};
    }
    gint32 width = 0;
    gint32 height = 0;
    g_variant_lookup(properties, "size", "(ii)", &width, &height);
    g_variant_unref(properties);
    grant.node = node;
    grant.size = {width, height};
    guint32 devices = 0;
    if (g_variant_lookup(results, "devices", "u", &devices)) {
        grant.devices = devices;
    }
    const gchar* token = nullptr;
    if (g_variant_lookup(results, "restore_token", "&s", &token) && token != nullptr &&
        *token != '\0') {
        grant.restoreToken = std::string(token);
    }
    return grant;
}

}  // namespace velmorand
