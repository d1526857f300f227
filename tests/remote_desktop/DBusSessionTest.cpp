// Desktop services the bus starts on demand (the portal among them) are found before they run.
#include "velmorand/dbus/DBusSession.h"

#include <gtest/gtest.h>

#include "PrivateBus.h"

namespace velmorand {
namespace {

constexpr const char* kOnDemand = "org.velmorand.Test.OnDemand";

TEST(DBusSessionTest, AServiceStartedOnDemandIsStartedOnceAndFound) {
    const testing::PrivateBus bus(
        {testing::PrivateBus::OnDemand{kOnDemand, VELMORAND_OWN_BUS_NAME}});
    const auto dbus = bus.session();
    ASSERT_NE(dbus, nullptr) << "no private bus";

    EXPECT_EQ(dbus->owner(kOnDemand), std::nullopt) << "started by merely asking who owns it";
    const auto started = dbus->startedOwner(kOnDemand);
    ASSERT_TRUE(started.has_value()) << "not started";
    EXPECT_TRUE(started->starts_with(":")) << *started;
    EXPECT_EQ(dbus->startedOwner(kOnDemand), started) << "started twice";
    EXPECT_EQ(dbus->startedOwner("org.velmorand.Test.Nobody"), std::nullopt);
}

}  // namespace
}  // namespace velmorand
