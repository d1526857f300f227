#include "velmorand/gnome/GnomeRemoteDesktop.h"

#include <fcntl.h>
#include <gio/gio.h>
#include <poll.h>
#include <unistd.h>
#include <xkbcommon/xkbcommon-keysyms.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include "velmorand/dbus/DBusSession.h"

namespace velmorand {
namespace {

using namespace std::chrono_literals;

constexpr const char* kRemoteDesktopPath = "/org/gnome/Mutter/RemoteDesktop";
constexpr const char* kRemoteDesktop = "org.gnome.Mutter.RemoteDesktop";
constexpr const char* kRemoteDesktopSession = "org.gnome.Mutter.RemoteDesktop.Session";
constexpr const char* kScreenCastBus = "org.gnome.Mutter.ScreenCast";
constexpr const char* kScreenCastPath = "/org/gnome/Mutter/ScreenCast";
constexpr const char* kScreenCast = "org.gnome.Mutter.ScreenCast";
constexpr const char* kScreenCastSession = "org.gnome.Mutter.ScreenCast.Session";
constexpr const char* kScreenCastStream = "org.gnome.Mutter.ScreenCast.Stream";
// The cursor is drawn into the picture.
constexpr std::uint32_t kCursorEmbedded = 1;
constexpr auto kStreamTimeout = 5s;
// A clipboard is text up to here; a paste or a read waits at most this long for the other side.
constexpr std::size_t kLargestText = 1024 * 1024;
constexpr auto kTransferTimeout = 1s;
// A compositor that is going away may close its sessions before it leaves the bus: a close is
// taken for the person's own only once the compositor has stayed this long after it.
constexpr auto kCompositorLeaving = 1s;

// The types text is offered as, best first: what Wayland and X11 programs ask for.
constexpr const char* kTextTypes[] = {"text/plain;charset=utf-8", "UTF8_STRING", "text/plain",
                                      "TEXT", "STRING"};

bool isTextType(const char* type) {
    return std::any_of(std::begin(kTextTypes), std::end(kTextTypes),
                       [type](const char* known) { return std::string_view(type) == known; });
}

GVariant* vardict(std::initializer_list<std::pair<const char*, GVariant*>> entries) {
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE_VARDICT);
    for (const auto& [key, value] : entries) {
        g_variant_builder_add(&builder, "{sv}", key, value);
    }
    return g_variant_builder_end(&builder);
}

// The one object path a reply carries.
std::optional<std::string> objectPath(const DBusSession::Result& result) {
    const auto* reply = std::get_if<DBusSession::Reply>(&result);
    if (reply == nullptr || !g_variant_is_of_type(reply->arguments.get(), G_VARIANT_TYPE("(o)"))) {
        return std::nullopt;
    }
    const gchar* path = nullptr;
    g_variant_get(reply->arguments.get(), "(&o)", &path);
    return std::string(path);
}

std::string failure(const char* what, const DBusSession::Result& result) {
    const auto* error = std::get_if<std::string>(&result);
    return std::string(what) + (error != nullptr ? ": " + *error : ": an unexpected reply");
}

// The descriptor a reply's handle names, taken out of the list; the rest are closed.
int takeDescriptor(DBusSession::Result& result) {
    auto* reply = std::get_if<DBusSession::Reply>(&result);
    if (reply == nullptr) {
        return -1;
    }
    return reply->takeHandle();
}

// Waits for `descriptor` to be ready for `events`, up to the deadline.
bool ready(int descriptor, short events, std::chrono::steady_clock::time_point deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    pollfd entry{descriptor, events, 0};
    return left.count() > 0 && ::poll(&entry, 1, static_cast<int>(left.count())) > 0;
}

bool writeAll(int descriptor, std::string_view text) {
    const auto deadline = std::chrono::steady_clock::now() + kTransferTimeout;
    while (!text.empty()) {
        if (!ready(descriptor, POLLOUT, deadline)) {
            return false;
        }
        const auto written = ::write(descriptor, text.data(), text.size());
        if (written < 0 && errno != EINTR && errno != EAGAIN) {
            return false;
        }
        text.remove_prefix(static_cast<std::size_t>(std::max<ssize_t>(written, 0)));
    }
    return true;
}

std::optional<std::string> readAll(int descriptor) {
    const auto deadline = std::chrono::steady_clock::now() + kTransferTimeout;
    std::string text;
    char chunk[16 * 1024];
    while (true) {
        if (!ready(descriptor, POLLIN, deadline)) {
            return std::nullopt;
        }
        const auto count = ::read(descriptor, chunk, sizeof chunk);
        if (count == 0) {
            return text;
        }
        if (count < 0) {
            if (errno == EINTR || errno == EAGAIN) {
                continue;
            }
            return std::nullopt;
        }
        if (text.size() + static_cast<std::size_t>(count) > kLargestText) {
            return std::nullopt;
        }
        text.append(chunk, static_cast<std::size_t>(count));
    }
}

}  // namespace

// What the signal handlers share with the session, which they may outlive.
struct GnomeRemoteDesktop::Shared {
    mutable std::mutex mutex;
    mutable std::condition_variable changed;
    std::optional<std::uint32_t> node;
    // When the compositor said the session closed; whether it left the bus.
    std::optional<std::chrono::steady_clock::time_point> closedAt;
    bool compositorLeft = false;
    std::string offered;
    std::uint64_t pastes = 0;
    // The clipboard's current owner, when it is not this session: the types it offers.
    std::vector<std::string> ownerTypes;
    bool ownedHere = false;

    // The bus, for a handler that calls back, while the session lives: a handler holding the bus
    // itself could end up releasing it on the thread the bus must join.
    std::mutex busMutex;
    DBusSession* bus = nullptr;

    bool closed() const { return closedAt || compositorLeft; }

    void close(bool left) {
        {
            std::lock_guard lock(mutex);
            closedAt = closedAt.value_or(std::chrono::steady_clock::now());
            compositorLeft = compositorLeft || left;
        }
        changed.notify_all();
    }
};

std::optional<std::string> GnomeRemoteDesktop::unavailable(DBusSession& bus) {
    for (const char* name : {kBusName, kScreenCastBus}) {
        if (!bus.hasOwner(name)) {
            return std::string(name) + " is not on the session bus (not a GNOME session)";
        }
    }
    const struct {
        const char* bus;
        const char* path;
        const char* interface;
        const char* what;
    } interfaces[] = {
        {kBusName, kRemoteDesktopPath, kRemoteDesktop, "remote desktop"},
        {kScreenCastBus, kScreenCastPath, kScreenCast, "screen cast"},
    };
    for (const auto& [name, path, interface, what] : interfaces) {
        const auto version = bus.property(name, path, interface, "Version");
        const auto* value = std::get_if<Variant>(&version);
        if (value == nullptr || !g_variant_is_of_type(value->get(), G_VARIANT_TYPE_INT32) ||
            g_variant_get_int32(value->get()) < 1) {
            return std::string("GNOME's ") + what + " interface has no usable version";
        }
    }
    return std::nullopt;
}

std::variant<std::shared_ptr<GnomeRemoteDesktop>, std::string> GnomeRemoteDesktop::open(
    std::shared_ptr<DBusSession> bus) {
    if (auto reason = unavailable(*bus)) {
        return *reason;
    }
    // Both interfaces are the compositor's: one program, whose signals alone count.
    const auto compositor = bus->owner(kBusName);
    if (!compositor || bus->owner(kScreenCastBus) != compositor) {
        return std::string("GNOME's remote desktop and screen cast are not one program's");
    }
    auto shared = std::make_shared<Shared>();
    std::shared_ptr<GnomeRemoteDesktop> desktop(new GnomeRemoteDesktop(bus, shared));
    desktop->compositor_ = *compositor;

    const auto created =
        bus->call(kBusName, kRemoteDesktopPath, kRemoteDesktop, "CreateSession", nullptr);
    const auto session = objectPath(created);
    if (!session) {
        return failure("cannot start a GNOME remote-desktop session", created);
    }
    desktop->session_ = *session;
    const auto id = bus->property(kBusName, desktop->session_, kRemoteDesktopSession, "SessionId");
    const auto* idValue = std::get_if<Variant>(&id);
    if (idValue == nullptr || !g_variant_is_of_type(idValue->get(), G_VARIANT_TYPE_STRING)) {
        return std::string("GNOME's remote-desktop session has no id");
    }
    const auto cast = bus->call(
        kScreenCastBus, kScreenCastPath, kScreenCast, "CreateSession",
        g_variant_new(
            "(@a{sv})",
            vardict({{"remote-desktop-session-id",
                      g_variant_new_string(g_variant_get_string(idValue->get(), nullptr))}})));
    const auto castSession = objectPath(cast);
    if (!castSession) {
        return failure("cannot start a GNOME screen cast", cast);
    }
    const auto recorded =
        bus->call(kScreenCastBus, *castSession, kScreenCastSession, "RecordMonitor",
                  g_variant_new("(s@a{sv})", "",
                                vardict({{"cursor-mode", g_variant_new_uint32(kCursorEmbedded)}})));
    const auto stream = objectPath(recorded);
    if (!stream) {
        return failure("cannot record the primary monitor", recorded);
    }
    desktop->stream_ = *stream;

    const std::weak_ptr<Shared> weak = shared;
    desktop->subscriptions_.push_back(
        bus->subscribe(*compositor, desktop->stream_, kScreenCastStream, "PipeWireStreamAdded",
                       [weak](GVariant* arguments) {
                           const auto state = weak.lock();
                           if (!state || !g_variant_is_of_type(arguments, G_VARIANT_TYPE("(u)"))) {
                               return;
                           }
                           guint32 node = 0;
                           g_variant_get(arguments, "(u)", &node);
                           {
                               std::lock_guard lock(state->mutex);
                               state->node = node;
                           }
                           state->changed.notify_all();
                       }));
    desktop->subscriptions_.push_back(bus->subscribe(
        *compositor, desktop->session_, kRemoteDesktopSession, "Closed", [weak](GVariant*) {
            if (const auto state = weak.lock()) {
                state->close(false);
            }
        }));
    desktop->subscriptions_.push_back(bus->subscribe(
        "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameOwnerChanged",
        [weak](GVariant* arguments) {
            const auto state = weak.lock();
            if (!state || !g_variant_is_of_type(arguments, G_VARIANT_TYPE("(sss)"))) {
                return;
            }
            const gchar* name = nullptr;
            const gchar* newOwner = nullptr;
            g_variant_get(arguments, "(&s&s&s)", &name, nullptr, &newOwner);
            if (std::string_view(name) == kBusName && std::string_view(newOwner).empty()) {
                state->close(true);
            }
        }));

    const auto started =
        bus->call(kBusName, desktop->session_, kRemoteDesktopSession, "Start", nullptr);
    if (std::holds_alternative<std::string>(started)) {
        return failure("cannot start GNOME's remote desktop", started);
    }
    {
        std::unique_lock lock(shared->mutex);
        if (!shared->changed.wait_for(lock, kStreamTimeout,
                                      [&shared] { return shared->node || shared->closed(); }) ||
            !shared->node) {
            return std::string("GNOME's screen cast announced no PipeWire stream");
        }
        desktop->node_ = *shared->node;
    }
    const auto parameters =
        bus->property(kScreenCastBus, desktop->stream_, kScreenCastStream, "Parameters");
    if (const auto* value = std::get_if<Variant>(&parameters)) {
        gint32 width = 0;
        gint32 height = 0;
        if (g_variant_lookup(value->get(), "size", "(ii)", &width, &height)) {
            desktop->size_ = {width, height};
        }
    }
    // A new session loses its first key event, and its seat has no keyboard until one came.
    desktop->setKeysym(XKB_KEY_Shift_L, true);
    desktop->setKeysym(XKB_KEY_Shift_L, false);
    // Likewise a seat with no pointer of its own gets one only with the first pointer event, and
    // the windows learn of it too late for the button events that follow at once: a motion by
    // nothing lets them learn of it now, before any viewer points.
    bus->send(kBusName, desktop->session_, kRemoteDesktopSession, "NotifyPointerMotionRelative",
              g_variant_new("(dd)", 0.0, 0.0));

    bus->call(kBusName, desktop->session_, kRemoteDesktopSession, "EnableClipboard",
              g_variant_new("(@a{sv})", vardict({})));
    shared->bus = bus.get();
    const std::string sessionPath = desktop->session_;
    desktop->subscriptions_.push_back(bus->subscribe(
        *compositor, desktop->session_, kRemoteDesktopSession, "SelectionOwnerChanged",
        [weak](GVariant* arguments) {
            const auto state = weak.lock();
            if (!state || !g_variant_is_of_type(arguments, G_VARIANT_TYPE("(a{sv})"))) {
                return;
            }
            GVariant* options = nullptr;
            g_variant_get(arguments, "(@a{sv})", &options);
            const Variant owned(options);
            gboolean here = FALSE;
            g_variant_lookup(options, "session-is-owner", "b", &here);
            std::vector<std::string> types;
            // Mutter sends the list wrapped in a tuple, "(as)"; a bare "as" is read as well.
            GVariantIter* iterator = nullptr;
            if (g_variant_lookup(options, "mime-types", "(as)", &iterator) ||
                g_variant_lookup(options, "mime-types", "as", &iterator)) {
                const gchar* type = nullptr;
                while (g_variant_iter_next(iterator, "&s", &type)) {
                    types.emplace_back(type);
                }
                g_variant_iter_free(iterator);
            }
            std::lock_guard lock(state->mutex);
            state->ownedHere = here != FALSE;
            state->ownerTypes = std::move(types);
        }));
    desktop->subscriptions_.push_back(bus->subscribe(
        *compositor, desktop->session_, kRemoteDesktopSession, "SelectionTransfer",
        [weak, sessionPath](GVariant* arguments) {
            const auto state = weak.lock();
            if (!state || !g_variant_is_of_type(arguments, G_VARIANT_TYPE("(su)"))) {
                return;
            }
            const std::lock_guard busLock(state->busMutex);
            DBusSession* session = state->bus;
            if (session == nullptr) {
                return;
            }
            const gchar* type = nullptr;
            guint32 serial = 0;
            g_variant_get(arguments, "(&su)", &type, &serial);
            std::string text;
            {
                std::lock_guard lock(state->mutex);
                text = state->offered;
            }
            auto written = session->call(kBusName, sessionPath, kRemoteDesktopSession,
                                         "SelectionWrite", g_variant_new("(u)", serial));
            const int descriptor = takeDescriptor(written);
            bool done = false;
            if (descriptor >= 0) {
                ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) | O_NONBLOCK);
                done = isTextType(type) && writeAll(descriptor, text);
                ::close(descriptor);
            }
            session->send(kBusName, sessionPath, kRemoteDesktopSession, "SelectionWriteDone",
                          g_variant_new("(ub)", serial, done ? TRUE : FALSE));
            if (done) {
                {
                    std::lock_guard lock(state->mutex);
                    ++state->pastes;
                }
                state->changed.notify_all();
            }
        }));
    return desktop;
}

GnomeRemoteDesktop::GnomeRemoteDesktop(std::shared_ptr<DBusSession> bus,
                                       std::shared_ptr<Shared> shared)
    : bus_(std::move(bus)), shared_(std::move(shared)) {}

GnomeRemoteDesktop::~GnomeRemoteDesktop() {
    {
        // Waits for a paste being served to finish with the bus.
        const std::lock_guard lock(shared_->busMutex);
        shared_->bus = nullptr;
    }
    for (const unsigned subscription : subscriptions_) {
        bus_->unsubscribe(subscription);
    }
    bool closed = false;
    {
        const std::lock_guard lock(shared_->mutex);
        closed = shared_->closed();
    }
    if (!session_.empty() && !closed) {
        bus_->call(kBusName, session_, kRemoteDesktopSession, "Stop", nullptr);
    }
}

SessionEnd GnomeRemoteDesktop::ended() const {
    std::optional<std::chrono::steady_clock::time_point> closedAt;
    {
        const std::lock_guard lock(shared_->mutex);
        if (shared_->compositorLeft) {
            return SessionEnd::compositorGone;
        }
        closedAt = shared_->closedAt;
    }
    if (!closedAt) {
        return SessionEnd::none;
    }
    std::this_thread::sleep_until(*closedAt + kCompositorLeaving);
    // Closed by a compositor that is still there: the person at the device stopped sharing.
    return bus_->owner(kBusName) == compositor_ ? SessionEnd::stoppedAtDevice
                                                : SessionEnd::compositorGone;
}

void GnomeRemoteDesktop::movePointer(double x, double y) {
    bus_->send(kBusName, session_, kRemoteDesktopSession, "NotifyPointerMotionAbsolute",
               g_variant_new("(sdd)", stream_.c_str(), x, y));
}

void GnomeRemoteDesktop::setButton(std::int32_t button, bool pressed) {
    bus_->send(kBusName, session_, kRemoteDesktopSession, "NotifyPointerButton",
               g_variant_new("(ib)", button, pressed ? TRUE : FALSE));
}

void GnomeRemoteDesktop::setKeysym(std::uint32_t keysym, bool pressed) {
    bus_->send(kBusName, session_, kRemoteDesktopSession, "NotifyKeyboardKeysym",
               g_variant_new("(ub)", keysym, pressed ? TRUE : FALSE));
}

void GnomeRemoteDesktop::sync() {
    bus_->sync(kBusName, session_);
}

void GnomeRemoteDesktop::offerText(std::string text) {
    {
        std::lock_guard lock(shared_->mutex);
        shared_->offered = std::move(text);
    }
    GVariantBuilder types;
    g_variant_builder_init(&types, G_VARIANT_TYPE_STRING_ARRAY);
    for (const char* type : kTextTypes) {
        g_variant_builder_add(&types, "s", type);
    }
    const auto set = bus_->call(
        kBusName, session_, kRemoteDesktopSession, "SetSelection",
        g_variant_new("(@a{sv})", vardict({{"mime-types", g_variant_builder_end(&types)}})));
    if (std::holds_alternative<DBusSession::Reply>(set)) {
        // Ours from now on, not only once the compositor's signal says so: a paste that follows
        // at once must not read the clipboard's previous owner.
        std::lock_guard lock(shared_->mutex);
        shared_->ownedHere = true;
        shared_->ownerTypes.clear();
    }
}

std::uint64_t GnomeRemoteDesktop::pastes() const {
    std::lock_guard lock(shared_->mutex);
    return shared_->pastes;
}

bool GnomeRemoteDesktop::waitForPaste(std::uint64_t count,
                                      std::chrono::milliseconds timeout) const {
    std::unique_lock lock(shared_->mutex);
    return shared_->changed.wait_for(lock, timeout, [this, count] {
        return shared_->pastes > count || shared_->closed();
    }) && shared_->pastes > count;
}

std::optional<std::string> GnomeRemoteDesktop::readText() {
    std::string type;
    {
        std::lock_guard lock(shared_->mutex);
        if (shared_->ownedHere) {
            return shared_->offered;
        }
        for (const char* known : kTextTypes) {
            if (std::find(shared_->ownerTypes.begin(), shared_->ownerTypes.end(), known) !=
                shared_->ownerTypes.end()) {
                type = known;
                break;
            }
        }
    }
    if (type.empty()) {
        return std::nullopt;
    }
    auto read = bus_->call(kBusName, session_, kRemoteDesktopSession, "SelectionRead",
                           g_variant_new("(s)", type.c_str()));
    const int descriptor = takeDescriptor(read);
    if (descriptor < 0) {
        return std::nullopt;
    }
    ::fcntl(descriptor, F_SETFL, ::fcntl(descriptor, F_GETFL) | O_NONBLOCK);
    auto text = readAll(descriptor);
    ::close(descriptor);
    return text;
}

}  // namespace velmorand
