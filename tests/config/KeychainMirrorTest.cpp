#include <limits>

#include "ConfigFixture.h"

namespace velmorand {
namespace {

using Values = SharedConfig::Values;
using nlohmann::json;
using testing::ConfigFixture;

StoredValue text(const char* value) {
    return StoredValue{std::string(value)};
}

KeychainAttributes probeItem(StoredValue accessGroup) {
    return {{std::string(keychain::kClass), text("genp")},
            {std::string(keychain::kAccount), text("velmorand.bundleSeedID")},
            {std::string(keychain::kService), text("")},
            {std::string(keychain::kAccessGroup), std::move(accessGroup)}};
}

TEST_F(ConfigFixture, TeamPrefixComesFromTheProbeItemAddedOnFirstUse) {
    SharedConfig& shared = config();
    EXPECT_EQ(shared.bundleSeedID(), "TEAM123");
    EXPECT_EQ(keychain.items, std::vector{probeItem(text("TEAM123.co.velmorand.connect"))});
    // Nothing is cached, but the probe is found from now on.
    EXPECT_EQ(shared.bundleSeedID(), "TEAM123");
    EXPECT_EQ(keychain.copyCount, 2);
    EXPECT_EQ(keychain.addCount, 1);

    // The first non-empty piece of the probe's access group.
    const std::pair<StoredValue, std::optional<std::string>> cases[] = {
        {text(".TEAM9.co.x"), "TEAM9"},
        {text("..."), std::nullopt},
        {std::int64_t{7}, std::nullopt}};
    for (const auto& [group, expected] : cases) {
        keychain.items = {probeItem(group)};
        EXPECT_EQ(shared.bundleSeedID(), expected);
    }
}

TEST_F(ConfigFixture, SavingReplacesTheItemByDeleteThenAdd) {
    SharedConfig& shared = config();
    // Every field, as the upload extension may find the configuration in the mirror alone.
    const Values b = everyField("B");
    shared.saveKeychain(paired("A"));
    shared.saveKeychain(b);
    EXPECT_EQ(keychain.items.size(), 2u);
    EXPECT_EQ(shared.loadKeychain(), b);
    // What another reader of the shared group asks for: a generic password of that service,
    // readable once the device was first unlocked, and never carried to another device.
    auto mirror = keychain.items.back();
    mirror.erase(std::string(keychain::kValueData));
    EXPECT_EQ(mirror,
              (KeychainAttributes{
                  {std::string(keychain::kClass), text("genp")},
                  {std::string(keychain::kService), text("co.velmorand.connect.config")},
                  {std::string(keychain::kAccount), text("sharedConfig")},
                  {std::string(keychain::kAccessGroup), text("TEAM123.co.velmorand.shared")},
                  {std::string(keychain::kAccessible), text("cku")},
              }));

    // A record that cannot be written as JSON leaves the mirror alone.
    Values notANumber = paired("C");
    notANumber.quality = std::numeric_limits<double>::quiet_NaN();
    shared.saveKeychain(notANumber);
    Values notUtf8 = paired("D");
    notUtf8.deviceName = "\xff\xfe";
    shared.saveKeychain(notUtf8);
    EXPECT_EQ(keychain.removeCount, 2);
    EXPECT_EQ(shared.loadKeychain(), b);

    // An add that fails after the delete leaves no mirror.
    keychain.failAdds = true;
    shared.persist(paired("E"));
    EXPECT_EQ(mirrorText(), std::nullopt);
    EXPECT_EQ(shared.loadKeychain(), std::nullopt);
}

TEST_F(ConfigFixture, LoadsHandWrittenMirrors) {
    SharedConfig& shared = config();
    ASSERT_TRUE(shared.bundleSeedID());
    const auto record = [](auto&& fill) {
        Values values;
        fill(values);
        return std::optional<Values>(values);
    };
    const std::pair<std::string, std::optional<Values>> cases[] = {
        {R"({"fps":24.9,"deviceToken":5})", record([](Values& v) { v.fps = 24; })},
        {R"({"fps":true,"quality":1,"bitrate":-3})", record([](Values& v) {
             v.fps = 1;
             v.quality = 1.0;
             v.bitrate = -3;
         })},
        {R"({"fps":1e30,"scale":18446744073709551615,"bitrate":18446744073709551615})",
         record([](Values& v) { v.scale = 18446744073709551615.0; })},
        {R"({"deviceToken":null,"relayWsUrl":["x"],"accessKey":"k","extra":1})",
         record([](Values& v) { v.accessKey = "k"; })},
        {R"([{"accessKey":"k"}])", std::nullopt},
    };
    for (const auto& [data, expected] : cases) {
        keychain.items.resize(1);
        keychain.items.push_back(
            {{std::string(keychain::kClass), text("genp")},
             {std::string(keychain::kService), text("co.velmorand.connect.config")},
             {std::string(keychain::kAccount), text("sharedConfig")},
             {std::string(keychain::kAccessGroup), text("TEAM123.co.velmorand.shared")},
             {std::string(keychain::kValueData), Bytes(data.begin(), data.end())}});
        EXPECT_EQ(shared.loadKeychain(), expected) << data;
    }
}

}  // namespace
}  // namespace velmorand
