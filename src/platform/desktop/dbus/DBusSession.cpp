#include "velmorand/dbus/DBusSession.h"

#include <gio/gio.h>
#include <gio/gunixfdlist.h>
#include <unistd.h>

#include <algorithm>
#include <future>
#include <thread>
#include <utility>

namespace velmorand {
namespace {

struct ErrorFree {
    void operator()(GError* error) const { g_error_free(error); }
};
using Error = std::unique_ptr<GError, ErrorFree>;

// What another program said, on one line and of a bounded length.
std::string message(const GError* error) {
    constexpr std::size_t kLongest = 300;
    std::string text(error != nullptr && error->message != nullptr ? error->message : "no reason");
    std::replace_if(
        text.begin(), text.end(), [](char c) { return c == '\n' || c == '\r'; }, ' ');
    if (text.size() > kLongest) {
        text.resize(kLongest);
        text += "...";
    }
    return text;
}

// Runs `work` on `context`'s loop: always by that loop's thread, never by the caller, even before
// the loop has started (g_main_context_invoke would run it here when nobody holds the context).
void runOnLoop(GMainContext* context, std::function<void()> work) {
    GSource* source = g_idle_source_new();
    g_source_set_callback(
        source,
        [](gpointer data) -> gboolean {
            (*static_cast<std::function<void()>*>(data))();
            return G_SOURCE_REMOVE;
        },
        new std::function<void()>(std::move(work)),
        [](gpointer data) { delete static_cast<std::function<void()>*>(data); });
    g_source_attach(source, context);
    g_source_unref(source);
}

}  // namespace

void VariantUnref::operator()(GVariant* variant) const {
    g_variant_unref(variant);
}

DBusSession::Reply::Reply(Variant arguments, std::vector<int> fds)
    : arguments(std::move(arguments)), fds(std::move(fds)) {}

DBusSession::Reply::Reply(Reply&& other) noexcept
    : arguments(std::move(other.arguments)), fds(std::exchange(other.fds, {})) {}

DBusSession::Reply& DBusSession::Reply::operator=(Reply&& other) noexcept {
    if (this != &other) {
        for (const int fd : fds) {
            ::close(fd);
        }
        arguments = std::move(other.arguments);
        fds = std::exchange(other.fds, {});
    }
    return *this;
}

DBusSession::Reply::~Reply() {
    for (const int fd : fds) {
        ::close(fd);
    }
}

int DBusSession::Reply::takeHandle() {
    if (!arguments || !g_variant_is_of_type(arguments.get(), G_VARIANT_TYPE("(h)"))) {
        return -1;
    }
    gint32 index = -1;
    g_variant_get(arguments.get(), "(h)", &index);
    if (index < 0 || static_cast<std::size_t>(index) >= fds.size()) {
        return -1;
    }
    const int taken = fds[static_cast<std::size_t>(index)];
    fds.erase(fds.begin() + index);
    return taken;
}

// The main context on which subscribed signals are delivered, and the thread that runs it.
struct DBusSession::SignalThread {
    GMainContext* context = g_main_context_new();
    GMainLoop* loop = g_main_loop_new(context, FALSE);
    std::thread thread{[this] {
        g_main_context_push_thread_default(context);
        g_main_loop_run(loop);
        g_main_context_pop_thread_default(context);
    }};

    // Runs `work` on the signal thread, and returns once it has.
    void run(const std::function<void()>& work) {
        std::promise<void> done;
        runOnLoop(context, [&work, &done] {
            work();
            done.set_value();
        });
        done.get_future().wait();
    }

    ~SignalThread() {
        // Queued, so that a loop that has not started yet still ends once it does.
        runOnLoop(context, [loop = loop] { g_main_loop_quit(loop); });
        thread.join();
        g_main_loop_unref(loop);
        g_main_context_unref(context);
    }
};

std::variant<std::shared_ptr<DBusSession>, std::string> DBusSession::connect() {
    GError* failure = nullptr;
    GDBusConnection* connection = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, &failure);
    if (connection == nullptr) {
        const Error error(failure);
        return "no D-Bus session bus (" + message(error.get()) + ")";
    }
    // The process goes on when the bus does; a lost bus shows up as failing calls.
    g_dbus_connection_set_exit_on_close(connection, FALSE);
    return std::shared_ptr<DBusSession>(
        new DBusSession(connection, std::make_unique<SignalThread>()));
}

DBusSession::DBusSession(GDBusConnection* connection, std::unique_ptr<SignalThread> signalThread)
    : connection_(connection), signals_(std::move(signalThread)) {}

DBusSession::~DBusSession() {
    signals_.reset();
    g_object_unref(connection_);
}

DBusSession::Result DBusSession::call(const std::string& bus, const std::string& path,
                                      const std::string& interface, const std::string& method,
                                      GVariant* arguments, std::chrono::milliseconds timeout) {
    GError* failure = nullptr;
    GUnixFDList* fds = nullptr;
    GVariant* reply = g_dbus_connection_call_with_unix_fd_list_sync(
        connection_, bus.c_str(), path.c_str(), interface.c_str(), method.c_str(), arguments,
        nullptr, G_DBUS_CALL_FLAGS_NO_AUTO_START, static_cast<gint>(timeout.count()), nullptr, &fds,
        nullptr, &failure);
    if (reply == nullptr) {
        const Error error(failure);
        return message(error.get());
    }
    std::vector<int> descriptors;
    if (fds != nullptr) {
        gint count = 0;
        gint* stolen = g_unix_fd_list_steal_fds(fds, &count);
        descriptors.assign(stolen, stolen + count);
        g_free(stolen);
        g_object_unref(fds);
    }
    return Reply(Variant(reply), std::move(descriptors));
}

void DBusSession::send(const std::string& bus, const std::string& path,
                       const std::string& interface, const std::string& method,
                       GVariant* arguments) {
    // A message that expects no reply is one the compositor may ignore: the reply comes, and is
    // dropped here.
    GDBusMessage* message = g_dbus_message_new_method_call(bus.c_str(), path.c_str(),
                                                           interface.c_str(), method.c_str());
    g_dbus_message_set_body(message, arguments);
    g_dbus_message_set_flags(message, G_DBUS_MESSAGE_FLAGS_NO_AUTO_START);
    g_dbus_connection_send_message(connection_, message, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                   nullptr);
    g_object_unref(message);
}

bool DBusSession::sync(const std::string& bus, const std::string& path) {
    return std::holds_alternative<Reply>(
        call(bus, path, "org.freedesktop.DBus.Peer", "Ping", nullptr));
}

std::variant<Variant, std::string> DBusSession::property(const std::string& bus,
                                                         const std::string& path,
                                                         const std::string& interface,
                                                         const std::string& name) {
    auto result = call(bus, path, "org.freedesktop.DBus.Properties", "Get",
                       g_variant_new("(ss)", interface.c_str(), name.c_str()));
    if (auto* error = std::get_if<std::string>(&result)) {
        return std::move(*error);
    }
    GVariant* arguments = std::get<Reply>(result).arguments.get();
    if (!g_variant_is_of_type(arguments, G_VARIANT_TYPE("(v)"))) {
        return std::string("the property came as ") + g_variant_get_type_string(arguments);
    }
    GVariant* boxed = nullptr;
    g_variant_get(arguments, "(v)", &boxed);
    return Variant(boxed);
}

bool DBusSession::hasOwner(const std::string& bus) {
    auto result = call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                       "NameHasOwner", g_variant_new("(s)", bus.c_str()));
    const auto* reply = std::get_if<Reply>(&result);
    gboolean owned = FALSE;
    if (reply != nullptr && g_variant_is_of_type(reply->arguments.get(), G_VARIANT_TYPE("(b)"))) {
        g_variant_get(reply->arguments.get(), "(b)", &owned);
    }
    return owned != FALSE;
}

std::optional<std::string> DBusSession::owner(const std::string& bus) {
    auto result = call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
                       "GetNameOwner", g_variant_new("(s)", bus.c_str()));
    const auto* reply = std::get_if<Reply>(&result);
    if (reply == nullptr || !g_variant_is_of_type(reply->arguments.get(), G_VARIANT_TYPE("(s)"))) {
        return std::nullopt;
    }
    const gchar* name = nullptr;
    g_variant_get(reply->arguments.get(), "(&s)", &name);
    return std::string(name);
}

std::optional<std::string> DBusSession::startedOwner(const std::string& bus) {
    if (auto running = owner(bus)) {
        return running;
    }
    call("org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus",
         "StartServiceByName", g_variant_new("(su)", bus.c_str(), 0U), std::chrono::seconds(25));
    return owner(bus);
}

std::string DBusSession::uniqueName() const {
    const char* name = g_dbus_connection_get_unique_name(connection_);
    return name != nullptr ? name : "";
}

unsigned DBusSession::subscribe(const std::string& sender, const std::string& path,
                                const std::string& interface, const std::string& member,
                                SignalHandler handler) {
    auto* owned = new SignalHandler(std::move(handler));
    // Signals are delivered on the context that is the thread default where the subscription is
    // made: the signal thread's, which only that thread may hold.
    std::promise<unsigned> made;
    signals_->run([&] {
        made.set_value(g_dbus_connection_signal_subscribe(
            connection_, sender.c_str(), interface.c_str(), member.c_str(),
            path.empty() ? nullptr : path.c_str(), nullptr, G_DBUS_SIGNAL_FLAGS_NONE,
            [](GDBusConnection*, const gchar*, const gchar*, const gchar*, const gchar*,
               GVariant* arguments,
               gpointer data) { (*static_cast<SignalHandler*>(data))(arguments); },
            owned, [](gpointer data) { delete static_cast<SignalHandler*>(data); }));
    });
    return made.get_future().get();
}

void DBusSession::unsubscribe(unsigned subscription) {
    g_dbus_connection_signal_unsubscribe(connection_, subscription);
}

}  // namespace velmorand
