#pragma once

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <variant>
#include <vector>

#include "ScopedEnv.h"
#include "SpawnedServer.h"
#include "TempDir.h"
#include "velmorand/dbus/DBusSession.h"

namespace velmorand::testing {

// A session bus of one test's own, so that nothing reaches the desktop the tests run on, which
// starts each of `onDemand` (a bus name and the program that takes it) when asked to.
class PrivateBus {
  public:
    struct OnDemand {
        std::string name;
        std::string program;
    };

    explicit PrivateBus(const std::vector<OnDemand>& onDemand = {})
        : daemon_({"dbus-daemon", "--config-file=" + configure(dir_.path(), onDemand), "--nofork",
                   "--print-address={fd}"}) {}

    // Empty when dbus-daemon did not start.
    const std::string& address() const { return daemon_.announced(); }
    // A connection to it as the desktop backends make theirs; null when there is none.
    std::shared_ptr<DBusSession> session() const {
        const ScopedEnv bus("DBUS_SESSION_BUS_ADDRESS", address().c_str());
        auto connected = DBusSession::connect();
        auto* session = std::get_if<std::shared_ptr<DBusSession>>(&connected);
        return session != nullptr ? *session : nullptr;
    }

  private:
    // Writes the bus's configuration, and a service file for each of `onDemand`, into `dir`;
    // returns the configuration's path.
    static std::string configure(const std::filesystem::path& dir,
                                 const std::vector<OnDemand>& onDemand) {
        const auto services = dir / "services";
        std::filesystem::create_directories(services);
        for (const auto& [name, program] : onDemand) {
            std::ofstream(services / (name + ".service"))
                << "[D-BUS Service]\nName=" << name << "\nExec=" << program << " " << name << "\n";
        }
        const auto config = dir / "bus.conf";
        std::ofstream(config) << "<busconfig><type>session</type><listen>unix:dir=" << dir.string()
                              << "</listen><servicedir>" << services.string()
                              << "</servicedir><policy context=\"default\">"
                                 "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                                 "<allow eavesdrop=\"true\"/><allow own=\"*\"/>"
                                 "</policy></busconfig>\n";
        return config.string();
    }

    TempDir dir_;
    SpawnedServer daemon_;
};

}  // namespace velmorand::testing
