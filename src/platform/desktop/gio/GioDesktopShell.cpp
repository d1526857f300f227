#include "velmorand/gio/GioDesktopShell.h"

#include <gio/gdesktopappinfo.h>
#include <gio/gio.h>

#include <algorithm>
#include <memory>
#include <string_view>

namespace velmorand {
namespace {

constexpr std::size_t kMaxReasonLength = 300;
constexpr std::size_t kMaxIdShown = 100;

struct ObjectUnref {
    void operator()(gpointer object) const { g_object_unref(object); }
};
template <typename T>
using Object = std::unique_ptr<T, ObjectUnref>;

struct ErrorFree {
    void operator()(GError* error) const { g_error_free(error); }
};
using Error = std::unique_ptr<GError, ErrorFree>;

// GLib's messages may span lines or quote whatever a desktop entry holds.
std::string oneLine(const GError* error, std::string_view otherwise) {
    std::string reason(error != nullptr && error->message != nullptr ? error->message : otherwise);
    std::replace_if(
        reason.begin(), reason.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
    if (reason.size() > kMaxReasonLength) {
        reason.resize(kMaxReasonLength);
        reason += "...";
    }
    return reason;
}

std::string shown(const std::string& id) {
    return id.size() > kMaxIdShown ? id.substr(0, kMaxIdShown) + "..." : id;
}

}  // namespace

std::optional<std::string> GioDesktopShell::openUrl(const std::string& url) {
    const Object<GAppLaunchContext> context(g_app_launch_context_new());
    GError* failure = nullptr;
    if (g_app_info_launch_default_for_uri(url.c_str(), context.get(), &failure) != FALSE) {
        return std::nullopt;
    }
    const Error error(failure);
    return oneLine(error.get(), "the desktop has no application for this URL");
}

std::optional<std::string> GioDesktopShell::launch(const std::string& desktopId) {
    const Object<GDesktopAppInfo> info(g_desktop_app_info_new(desktopId.c_str()));
    if (!info) {
        return "no installed application has the id " + shown(desktopId);
    }
    // GIO starts the program in a grandchild it has already reaped the parent of, with stdin
    // on /dev/null, so nothing is left here to wait for.
    const Object<GAppLaunchContext> context(g_app_launch_context_new());
    GError* failure = nullptr;
    if (g_app_info_launch(G_APP_INFO(info.get()), nullptr, context.get(), &failure) != FALSE) {
        return std::nullopt;
    }
    const Error error(failure);
    return oneLine(error.get(), "the application could not be started");
}

std::optional<std::vector<std::string>> GioDesktopShell::windowClasses(
    const std::string& desktopId) {
    const Object<GDesktopAppInfo> info(g_desktop_app_info_new(desktopId.c_str()));
    if (!info) {
        return std::nullopt;
    }
    const char* startupClass = g_desktop_app_info_get_startup_wm_class(info.get());
    if (startupClass == nullptr || *startupClass == '\0') {
        return std::vector<std::string>();
    }
    return std::vector<std::string>{startupClass};
}

std::filesystem::path GioDesktopShell::downloadsDirectory() {
    const char* downloads = g_get_user_special_dir(G_USER_DIRECTORY_DOWNLOAD);
    if (downloads != nullptr && *downloads != '\0') {
        return downloads;
    }
    return std::filesystem::path(g_get_home_dir()) / "Downloads";
}

}  // namespace velmorand
