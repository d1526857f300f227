#pragma once

#include <gio/gio.h>

#include <chrono>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace velmorand::testing {

// A desktop service of one test's own on a private bus: it takes the names the real one owns,
// and every method call it is sent is answered by the test's script, in order, on the
// connection's own thread, as another program would answer it.
class ScriptedBusService {
  public:
    struct Call {
        std::string sender;
        std::string path;
        std::string interface;
        std::string member;
        GVariant* arguments;

        // The property a Properties.Get asks for, as "Interface.Name"; empty for other calls.
        std::string property() const {
            const gchar* owner = nullptr;
            const gchar* name = nullptr;
            if (member != "Get" || !g_variant_is_of_type(arguments, G_VARIANT_TYPE("(ss)"))) {
                return {};
            }
            g_variant_get(arguments, "(&s&s)", &owner, &name);
            return std::string(owner) + "." + name;
        }
    };
    // The reply's arguments (a tuple; a floating reference is taken), or nullptr for an error.
    using Script = std::function<GVariant*(ScriptedBusService& service, const Call& call)>;

    ScriptedBusService(const std::string& address, const std::vector<std::string>& names,
                       Script script)
        : script_(std::move(script)) {
        connection_ = g_dbus_connection_new_for_address_sync(
            address.c_str(),
            static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                              G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
            nullptr, nullptr, nullptr);
        if (connection_ == nullptr) {
            return;
        }
        g_dbus_connection_set_exit_on_close(connection_, FALSE);
        filter_ =
            g_dbus_connection_add_filter(connection_, &ScriptedBusService::answer, this, nullptr);
        serving_ = true;
        for (const auto& name : names) {
            GVariant* reply = g_dbus_connection_call_sync(
                connection_, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                "org.freedesktop.DBus", "RequestName", g_variant_new("(su)", name.c_str(), 4U),
                G_VARIANT_TYPE("(u)"), G_DBUS_CALL_FLAGS_NONE, 5'000, nullptr, nullptr);
            guint32 outcome = 0;
            if (reply != nullptr) {
                g_variant_get(reply, "(u)", &outcome);
                g_variant_unref(reply);
            }
            serving_ = serving_ && outcome == 1;  // the primary owner
        }
    }
    ~ScriptedBusService() {
        for (auto& thread : later_) {
            thread.join();
        }
        if (connection_ != nullptr) {
            g_dbus_connection_remove_filter(connection_, filter_);
            g_dbus_connection_close_sync(connection_, nullptr, nullptr);
            g_object_unref(connection_);
        }
    }
    ScriptedBusService(const ScriptedBusService&) = delete;
    ScriptedBusService& operator=(const ScriptedBusService&) = delete;

    // Whether it is on the bus with every name its own.
    bool serving() const { return serving_; }

    // Sends a signal; `arguments` is a tuple, a floating reference taken.
    void emit(const std::string& path, const char* interface, const char* member,
              GVariant* arguments) {
        g_dbus_connection_emit_signal(connection_, nullptr, path.c_str(), interface, member,
                                      arguments, nullptr);
    }
    // Runs `work` on a thread of its own after `delay`, as a service does what it does next
    // some time after it answered.
    void after(std::chrono::milliseconds delay, std::function<void()> work) {
        std::lock_guard lock(mutex_);
        later_.emplace_back([delay, work = std::move(work)] {
            std::this_thread::sleep_for(delay);
            work();
        });
    }

    // The methods called so far, each as "Interface.Member".
    std::vector<std::string> calls() const {
        std::lock_guard lock(mutex_);
        return calls_;
    }

  private:
    static GDBusMessage* answer(GDBusConnection* connection, GDBusMessage* message,
                                gboolean incoming, gpointer data) {
        if (!incoming ||
            g_dbus_message_get_message_type(message) != G_DBUS_MESSAGE_TYPE_METHOD_CALL) {
            return message;
        }
        auto& self = *static_cast<ScriptedBusService*>(data);
        const auto text = [](const gchar* value) { return std::string(value ? value : ""); };
        GVariant* body = g_dbus_message_get_body(message);
        const Call call{
            text(g_dbus_message_get_sender(message)), text(g_dbus_message_get_path(message)),
            text(g_dbus_message_get_interface(message)), text(g_dbus_message_get_member(message)),
            body != nullptr ? body : g_variant_new("()")};
        {
            std::lock_guard lock(self.mutex_);
            self.calls_.push_back(call.interface + "." + call.member);
        }
        GVariant* arguments = self.script_(self, call);
        GDBusMessage* reply = arguments != nullptr ? g_dbus_message_new_method_reply(message)
                                                   : g_dbus_message_new_method_error(
                                                         message, "org.velmorand.Test.Unscripted",
                                                         "no answer scripted");
        if (arguments != nullptr) {
            g_dbus_message_set_body(reply, arguments);
        }
        g_dbus_connection_send_message(connection, reply, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                       nullptr);
        g_object_unref(reply);
        if (body == nullptr) {
            g_variant_unref(g_variant_ref_sink(call.arguments));
        }
        g_object_unref(message);
        return nullptr;
    }

    Script script_;
    GDBusConnection* connection_ = nullptr;
    guint filter_ = 0;
    bool serving_ = false;
    mutable std::mutex mutex_;
    std::vector<std::string> calls_;
    std::vector<std::thread> later_;
};

}  // namespace velmorand::testing
