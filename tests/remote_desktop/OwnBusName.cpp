// What a program the session bus starts on demand does: owns the name it is given on the bus that
// started it (which says where it is in DBUS_STARTER_ADDRESS), until that bus goes away.
#include <gio/gio.h>

int main(int argc, char** argv) {
    const char* address = g_getenv("DBUS_STARTER_ADDRESS");
    if (argc != 2 || address == nullptr) {
        return 2;
    }
    GDBusConnection* bus = g_dbus_connection_new_for_address_sync(
        address,
        static_cast<GDBusConnectionFlags>(G_DBUS_CONNECTION_FLAGS_AUTHENTICATION_CLIENT |
                                          G_DBUS_CONNECTION_FLAGS_MESSAGE_BUS_CONNECTION),
        nullptr, nullptr, nullptr);
    if (bus == nullptr) {
        return 1;
    }
    g_dbus_connection_set_exit_on_close(bus, FALSE);
    GMainLoop* loop = g_main_loop_new(nullptr, FALSE);
    const auto lost = [](GDBusConnection*, const gchar*, gpointer loop) {
        g_main_loop_quit(static_cast<GMainLoop*>(loop));
    };
    const guint owner = g_bus_own_name_on_connection(bus, argv[1], G_BUS_NAME_OWNER_FLAGS_NONE,
                                                     nullptr, lost, loop, nullptr);
    g_main_loop_run(loop);
    g_bus_unown_name(owner);
    g_main_loop_unref(loop);
    g_object_unref(bus);
    return 0;
}
