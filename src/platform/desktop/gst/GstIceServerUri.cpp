#include "velmorand/gst/GstIceServerUri.h"

#include <glib.h>

namespace velmorand {

std::string gstIceServerUri(const std::string& url, const IceServer& server) {
    const auto colon = url.find(':');
    const std::string scheme = url.substr(0, colon);
    std::string rest = colon == std::string::npos ? "" : url.substr(colon + 1);
    if (rest.starts_with("//")) {
        rest.erase(0, 2);
    }
    if (scheme == "turn" || scheme == "turns") {
        gchar* user = g_uri_escape_string(server.username.c_str(), nullptr, FALSE);
        gchar* password = g_uri_escape_string(server.credential.c_str(), nullptr, FALSE);
        rest = std::string(user) + ":" + password + "@" + rest;
        g_free(user);
        g_free(password);
    }
    return scheme + "://" + rest;
}

}  // namespace velmorand
