// Desktop services the bus starts on demand (the portal among them) are found before they run.
#include "velmorand/dbus/DBusSession.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <variant>

#include "ScopedEnv.h"
#include "SpawnedServer.h"
#include "TempDir.h"

namespace velmorand {
namespace {

constexpr const char* kOnDemand = "org.velmorand.Test.OnDemand";

// A session bus of the test's own, which starts `kOnDemand` when asked to.
class PrivateBus {
  public:
    // Empty when dbus-daemon did not start.
    const std::string& address() const { return daemon_.announced(); }

  private:
    // Writes the bus's configuration, and `kOnDemand`'s service file, into `dir`; returns the
    // configuration's path.
    static std::string configure(const std::filesystem::path& dir) {
        const auto services = dir / "services";
        std::filesystem::create_directories(services);
        std::ofstream(services / (std::string(kOnDemand) + ".service"))
            << "[D-BUS Service]\nName=" << kOnDemand << "\nExec=" << VELMORAND_OWN_BUS_NAME << " "
            << kOnDemand << "\n";
        const auto config = dir / "bus.conf";
        std::ofstream(config) << "<busconfig><type>session</type><listen>unix:dir=" << dir.string()
                              << "</listen><servicedir>" << services.string()
                              << "</servicedir><policy context=\"default\">"
                                 "<allow send_destination=\"*\" eavesdrop=\"true\"/>"
                                 "<allow eavesdrop=\"true\"/><allow own=\"*\"/>"
                                 "</policy></busconfig>\n";
        return config.string();
    }

    testing::TempDir dir_;
    testing::SpawnedServer daemon_{{"dbus-daemon", "--config-file=" + configure(dir_.path()),
                                    "--nofork", "--print-address={fd}"}};
};

TEST(DBusSessionTest, AServiceStartedOnDemandIsStartedOnceAndFound) {
    PrivateBus bus;
    ASSERT_FALSE(bus.address().empty()) << "dbus-daemon did not start";
    testing::ScopedEnv session("DBUS_SESSION_BUS_ADDRESS", bus.address().c_str());
    auto connected = DBusSession::connect();
    const auto* dbus = std::get_if<std::shared_ptr<DBusSession>>(&connected);
    ASSERT_NE(dbus, nullptr) << std::get<std::string>(connected);

    EXPECT_EQ((*dbus)->owner(kOnDemand), std::nullopt) << "started by merely asking who owns it";
    const auto started = (*dbus)->startedOwner(kOnDemand);
    ASSERT_TRUE(started.has_value()) << "not started";
    EXPECT_TRUE(started->starts_with(":")) << *started;
    EXPECT_EQ((*dbus)->startedOwner(kOnDemand), started) << "started twice";
    EXPECT_EQ((*dbus)->startedOwner("org.velmorand.Test.Nobody"), std::nullopt);
}

}  // namespace
}  // namespace velmorand
