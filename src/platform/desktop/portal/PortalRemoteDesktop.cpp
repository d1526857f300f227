#include "velmorand/portal/PortalRemoteDesktop.h"

#include <gio/gio.h>
#include <unistd.h>
#include <xkbcommon/xkbcommon-keysyms.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "velmorand/dbus/DBusSession.h"

namespace velmorand {
namespace {

constexpr const char* kPortal = "org.freedesktop.portal.Desktop";
constexpr const char* kPortalPath = "/org/freedesktop/portal/desktop";
constexpr const char* kScreenCast = "org.freedesktop.portal.ScreenCast";
constexpr const char* kRemoteDesktop = "org.freedesktop.portal.RemoteDesktop";
constexpr const char* kRequest = "org.freedesktop.portal.Request";
constexpr const char* kSession = "org.freedesktop.portal.Session";
constexpr std::uint32_t kMonitor = 1;
constexpr std::uint32_t kCursorEmbedded = 2;
constexpr std::uint32_t kKeyboardAndPointer = 3;
// Kept until the grant is revoked, not only while this program runs.
constexpr std::uint32_t kPersistUntilRevoked = 2;
// The portal's own steps answer at once; only Start waits for the person.
constexpr std::chrono::seconds kStepTimeout{10};

GVariant* vardict(std::initializer_list<std::pair<const char*, GVariant*>> entries) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
    for (const auto& [key, value] : entries) {
        if (value != nullptr) {
            g_variant_builder_add(&builder, "{sv}", key, value);
        }
    }
    return g_variant_builder_end(&builder);
}

std::uint32_t version(DBusSession& bus, const char* interface) {
    const auto value = bus.property(kPortal, kPortalPath, interface, "version");
    const auto* variant = std::get_if<Variant>(&value);
    return variant != nullptr && g_variant_is_of_type(variant->get(), G_VARIANT_TYPE_UINT32)
               ? g_variant_get_uint32(variant->get())
               : 0;
}

// One request to the portal: its answer comes later as a Response signal on a path this
// connection can name in advance, and is subscribed to before the call is made.
struct Answer {
    std::uint32_t code = 2;
    Variant results;
};

// `asksThePerson` when the portal shows the person at the device a question: no answer in time
// is then theirs.
std::variant<Answer, SessionDenied> request(DBusSession& bus, const std::string& portal,
                                            const char* interface, const char* method,
                                            const std::string& session, GVariant* options,
                                            std::chrono::seconds timeout,
                                            bool asksThePerson = false) {
    static std::atomic<unsigned> counter{0};
    const std::string token = "velmorand" + std::to_string(++counter);
    std::string sender = bus.uniqueName().substr(1);
    std::replace(sender.begin(), sender.end(), '.', '_');
    const std::string path = std::string(kPortalPath) + "/request/" + sender + "/" + token;

    struct Waiting {
        std::mutex mutex;
        std::condition_variable came;
        std::optional<Answer> answer;
    };
    auto waiting = std::make_shared<Waiting>();
    const unsigned subscription =
        bus.subscribe(portal, path, kRequest, "Response", [waiting](GVariant* arguments) {
            if (!g_variant_is_of_type(arguments, G_VARIANT_TYPE("(ua{sv})"))) {
                return;  // not an answer: the wait runs on
            }
            Answer answer;
            GVariant* results = nullptr;
            g_variant_get(arguments, "(u@a{sv})", &answer.code, &results);
            answer.results = Variant(results);
            {
                std::lock_guard lock(waiting->mutex);
                waiting->answer = std::move(answer);
            }
            waiting->came.notify_all();
        });

    // The options, with the token that names the request.
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
    g_variant_builder_add(&builder, "{sv}", "handle_token", g_variant_new_string(token.c_str()));
    GVariantIter iterator;
    g_variant_iter_init(&iterator, options);
    const gchar* key = nullptr;
    GVariant* value = nullptr;
    while (g_variant_iter_next(&iterator, "{&sv}", &key, &value)) {
        g_variant_builder_add(&builder, "{sv}", key, value);
        g_variant_unref(value);
    }
    g_variant_unref(g_variant_ref_sink(options));
    GVariant* all = g_variant_builder_end(&builder);
    // Start names the window the question belongs to: none.
    GVariant* arguments = session.empty() ? g_variant_new("(@a{sv})", all)
                          : asksThePerson ? g_variant_new("(os@a{sv})", session.c_str(), "", all)
                                          : g_variant_new("(o@a{sv})", session.c_str(), all);
    const auto called = bus.call(kPortal, kPortalPath, interface, method, arguments);
    std::variant<Answer, SessionDenied> result;
    if (const auto* error = std::get_if<std::string>(&called)) {
        result = SessionDenied{std::string("the desktop portal refused ") + method + ": " + *error};
    } else {
        std::unique_lock lock(waiting->mutex);
        if (waiting->came.wait_for(lock, timeout,
                                   [&waiting] { return waiting->answer.has_value(); })) {
            result = std::move(*waiting->answer);
        } else {
            result = SessionDenied{asksThePerson
                                       ? "the person at the device did not answer within " +
                                             std::to_string(timeout.count()) + " s"
                                       : std::string("no answer from the desktop portal within ") +
                                             std::to_string(timeout.count()) + " s",
                                   asksThePerson};
        }
    }
    bus.unsubscribe(subscription);
    return result;
}

}  // namespace

struct PortalRemoteDesktop::Shared {
    std::atomic<bool> closed{false};
};

namespace {

template <typename T>
SessionDenied* denial(std::variant<T, SessionDenied>& result) {
    return std::get_if<SessionDenied>(&result);
}

}  // namespace

std::optional<std::string> PortalRemoteDesktop::unavailable(DBusSession& bus, bool input) {
    if (!bus.startedOwner(kPortal)) {
        return std::string("no desktop portal on the session bus (xdg-desktop-portal)");
    }
    if (version(bus, kScreenCast) < 1) {
        return std::string("the desktop portal offers no screen cast");
    }
    if (input && version(bus, kRemoteDesktop) < 1) {
        return std::string("the desktop portal offers no remote desktop");
    }
    return std::nullopt;
}

std::variant<std::shared_ptr<PortalRemoteDesktop>, SessionDenied> PortalRemoteDesktop::open(
    std::shared_ptr<DBusSession> bus, const Options& options) {
    if (auto reason = unavailable(*bus, options.input)) {
        return SessionDenied{*reason};
    }
    const auto owner = bus->owner(kPortal);
    if (!owner) {
        return SessionDenied{"the desktop portal left the session bus"};
    }
    std::shared_ptr<PortalRemoteDesktop> desktop(new PortalRemoteDesktop(bus, *owner));
    const char* kind = options.input ? kRemoteDesktop : kScreenCast;

    auto created = request(*bus, *owner, kind, "CreateSession", "",
                           vardict({{"session_handle_token", g_variant_new_string("velmorand")}}),
                           kStepTimeout);
    if (auto* denied = denial(created)) {
        return *denied;
    }
    const gchar* handle = nullptr;
    auto& answer = std::get<Answer>(created);
    if (answer.code != 0 ||
        !g_variant_lookup(answer.results.get(), "session_handle", "&s", &handle) ||
        !g_variant_is_object_path(handle)) {
        return SessionDenied{"the desktop portal would not open a session"};
    }
    desktop->session_ = handle;
    const std::weak_ptr<Shared> weak = desktop->shared_;
    desktop->subscriptions_.push_back(
        bus->subscribe(*owner, desktop->session_, kSession, "Closed", [weak](GVariant*) {
            if (const auto shared = weak.lock()) {
                shared->closed = true;
            }
        }));

    if (options.input) {
        auto devices =
            request(*bus, *owner, kRemoteDesktop, "SelectDevices", desktop->session_,
                    vardict({{"types", g_variant_new_uint32(kKeyboardAndPointer)}}), kStepTimeout);
        if (auto* denied = denial(devices)) {
            return *denied;
        }
        if (std::get<Answer>(devices).code != 0) {
            return SessionDenied{"the desktop portal offers no keyboard and pointer"};
        }
    }
    // A screen cast's grant can be kept (version 4 on); the token comes back with it.
    const bool keeps = !options.input && version(*bus, kScreenCast) >= 4;
    auto sources = request(
        *bus, *owner, kScreenCast, "SelectSources", desktop->session_,
        vardict({{"types", g_variant_new_uint32(kMonitor)},
                 {"multiple", g_variant_new_boolean(FALSE)},
                 {"cursor_mode", g_variant_new_uint32(kCursorEmbedded)},
                 {"persist_mode", keeps ? g_variant_new_uint32(kPersistUntilRevoked) : nullptr},
                 {"restore_token", keeps && options.restoreToken
                                       ? g_variant_new_string(options.restoreToken->c_str())
                                       : nullptr}}),
        kStepTimeout);
    if (auto* denied = denial(sources)) {
        return *denied;
    }
    if (std::get<Answer>(sources).code != 0) {
        return SessionDenied{"the desktop portal offers no monitor to share"};
    }
    auto started = request(*bus, *owner, kind, "Start", desktop->session_, vardict({}),
                           options.consentTimeout, true);
    if (auto* denied = denial(started)) {
        return *denied;
    }
    auto& start = std::get<Answer>(started);
    auto grant = readStartResponse(start.code, start.results.get());
    if (auto* denied = denial(grant)) {
        return *denied;
    }
    desktop->grant_ = std::get<PortalGrant>(std::move(grant));
    if (options.input && !desktop->inputGranted()) {
        return SessionDenied{
            "the person at the device shared the screen but not its keyboard and pointer", true};
    }
    if (desktop->inputGranted()) {
        // The compositor behind the portal loses a new session's first key event, and gives
        // windows its pointer too late for the first press: a key and a motion that change
        // nothing spend both before any viewer types or points.
        desktop->setKeysym(XKB_KEY_Shift_L, true);
        desktop->setKeysym(XKB_KEY_Shift_L, false);
        desktop->notify(
            "NotifyPointerMotion",
            g_variant_new("(o@a{sv}dd)", desktop->session_.c_str(), vardict({}), 0.0, 0.0));
    }
    return desktop;
}

PortalRemoteDesktop::PortalRemoteDesktop(std::shared_ptr<DBusSession> bus, std::string portal)
    : bus_(std::move(bus)), portal_(std::move(portal)), shared_(std::make_shared<Shared>()) {}

PortalRemoteDesktop::~PortalRemoteDesktop() {
    for (const unsigned subscription : subscriptions_) {
        bus_->unsubscribe(subscription);
    }
    if (!session_.empty() && !shared_->closed) {
        bus_->call(kPortal, session_, kSession, "Close", nullptr);
    }
}

int PortalRemoteDesktop::openPipeWireRemote() {
    auto opened = bus_->call(kPortal, kPortalPath, kScreenCast, "OpenPipeWireRemote",
                             g_variant_new("(o@a{sv})", session_.c_str(), vardict({})));
    auto* reply = std::get_if<DBusSession::Reply>(&opened);
    return reply != nullptr ? reply->takeHandle() : -1;
}

SessionEnd PortalRemoteDesktop::ended() const {
    return shared_->closed ? SessionEnd::stoppedAtDevice : SessionEnd::none;
}

// The portal handles each call on a thread of its own, so events sent without waiting reach the
// compositor in any order (a key before the Control held for it, a release before its press).
// Each waits for the portal's reply, which comes once it has passed the event on. An event
// still unanswered after this long may yet be carried out, after anything sent behind it: the
// events that follow are dropped instead, until the portal answers a sync again.
constexpr std::chrono::milliseconds kNotifyTimeout{1'000};

void PortalRemoteDesktop::notify(const char* method, GVariant* arguments) {
    if (stalled_) {
        g_variant_unref(g_variant_ref_sink(arguments));
        return;
    }
    const auto result =
        bus_->call(kPortal, kPortalPath, kRemoteDesktop, method, arguments, kNotifyTimeout);
    if (std::holds_alternative<std::string>(result)) {
        stalled_ = true;
    }
}

void PortalRemoteDesktop::movePointer(double x, double y) {
    notify("NotifyPointerMotionAbsolute",
           g_variant_new("(o@a{sv}udd)", session_.c_str(), vardict({}), grant_.node, x, y));
}

void PortalRemoteDesktop::setButton(std::int32_t button, bool pressed) {
    notify("NotifyPointerButton",
           g_variant_new("(o@a{sv}iu)", session_.c_str(), vardict({}), button, pressed ? 1U : 0U));
}

void PortalRemoteDesktop::setKeysym(std::uint32_t keysym, bool pressed) {
    notify("NotifyKeyboardKeysym", g_variant_new("(o@a{sv}iu)", session_.c_str(), vardict({}),
                                                 static_cast<gint32>(keysym), pressed ? 1U : 0U));
}

void PortalRemoteDesktop::sync() {
    if (bus_->sync(kPortal, kPortalPath)) {
        stalled_ = false;
    }
}

}  // namespace velmorand
