#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

typedef struct _GDBusConnection GDBusConnection;
typedef struct _GMainContext GMainContext;
typedef struct _GVariant GVariant;

namespace velmorand {

struct VariantUnref {
    void operator()(GVariant* variant) const;
};
// An owned reference to a GVariant.
using Variant = std::unique_ptr<GVariant, VariantUnref>;

// The session bus, as the desktop services use it: method calls from any thread, each bounded in
// time (the other side is another program, which may hang), and signals delivered on a thread of
// the connection's own, whatever the calling thread runs.
class DBusSession {
  public:
    static constexpr std::chrono::milliseconds kCallTimeout{5'000};

    // The reply's arguments as a tuple, and the file descriptors it carried, closed with it
    // unless taken: a peer that sends descriptors nobody asked for cannot make them pile up.
    struct Reply {
        Variant arguments;
        std::vector<int> fds;

        Reply(Variant arguments, std::vector<int> fds);
        Reply(Reply&& other) noexcept;
        Reply& operator=(Reply&& other) noexcept;
        ~Reply();
        // The descriptor a reply of one handle ("(h)") names, now the caller's; -1 when none.
        int takeHandle();
    };
    using Result = std::variant<Reply, std::string>;
    // Runs on the signal thread with the signal's arguments (a tuple), which are checked against
    // nothing: the handler checks their type. It must not hold the session itself (the last
    // reference would then go on the thread it has to join).
    using SignalHandler = std::function<void(GVariant* arguments)>;

    // The reason when there is no session bus.
    static std::variant<std::shared_ptr<DBusSession>, std::string> connect();

    ~DBusSession();
    DBusSession(const DBusSession&) = delete;
    DBusSession& operator=(const DBusSession&) = delete;

    // Waits for the reply. `arguments` (floating or not) is consumed; nullptr for none.
    Result call(const std::string& bus, const std::string& path, const std::string& interface,
                const std::string& method, GVariant* arguments,
                std::chrono::milliseconds timeout = kCallTimeout);
    // Sends without waiting for the reply, in order with every other call made on this session.
    void send(const std::string& bus, const std::string& path, const std::string& interface,
              const std::string& method, GVariant* arguments);
    // Returns once the peer has taken everything sent to it before: its answer to a ping.
    // Whether it answered in time.
    bool sync(const std::string& bus, const std::string& path);

    // A property's value, or why there is none.
    std::variant<Variant, std::string> property(const std::string& bus, const std::string& path,
                                                const std::string& interface,
                                                const std::string& name);
    // Whether some program owns `bus` now.
    bool hasOwner(const std::string& bus);
    // The unique name (":1.3") of the program that owns `bus` now; absent when none does.
    std::optional<std::string> owner(const std::string& bus);
    // The same, having the bus start the program first when it starts it on demand.
    std::optional<std::string> startedOwner(const std::string& bus);
    // This connection's unique name (":1.42").
    std::string uniqueName() const;

    // Subscribes `handler` to `member` from `sender` (a unique name: this GLib drops signals from
    // a well-known name whose owner it has not looked up yet) on `path` (any path when empty);
    // returns what unsubscribe() takes.
    unsigned subscribe(const std::string& sender, const std::string& path,
                       const std::string& interface, const std::string& member,
                       SignalHandler handler);
    void unsubscribe(unsigned subscription);

  private:
    struct SignalThread;

    DBusSession(GDBusConnection* connection, std::unique_ptr<SignalThread> signalThread);

    GDBusConnection* connection_;
    std::unique_ptr<SignalThread> signals_;
};

}  // namespace velmorand
