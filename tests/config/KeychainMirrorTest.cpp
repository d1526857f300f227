#include <limits>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "ConfigFixture.h"
#include "velmorand/config/SharedConfig.h"

namespace velmorand {
namespace {

using Values = SharedConfig::Values;
using nlohmann::json;
using testing::ConfigFixture;

StoredValue text(const char* value) {
    return StoredValue{std::string(value)};
}

KeychainAttributes mirrorItem(const std::string& data) {
    return {{std::string(keychain::kClass), text("genp")},
            {std::string(keychain::kService), text("co.velmorand.connect.config")},
            {std::string(keychain::kAccount), text("sharedConfig")},
            {std::string(keychain::kAccessGroup), text("TEAM123.co.velmorand.shared")},
            {std::string(keychain::kValueData), StoredValue{Bytes(data.begin(), data.end())}}};
}

TEST_F(ConfigFixture, FirstUseAddsTheProbeAndReadsItsGroup) {
    SharedConfig& shared = config();
    EXPECT_EQ(shared.bundleSeedID(), "TEAM123");
    ASSERT_EQ(keychain.items.size(), 1u);
    const KeychainAttributes expectedProbe = {
        {std::string(keychain::kClass), text("genp")},
        {std::string(keychain::kAccount), text("velmorand.bundleSeedID")},
        {std::string(keychain::kService), text("")},
        {std::string(keychain::kAccessGroup), text("TEAM123.co.velmorand.connect")}};
    EXPECT_EQ(keychain.items[0], expectedProbe);

    // Nothing is cached, but the probe is found from now on.
    EXPECT_EQ(shared.bundleSeedID(), "TEAM123");
    EXPECT_EQ(keychain.copyCount, 2);
    EXPECT_EQ(keychain.addCount, 1);
}

TEST_F(ConfigFixture, TeamPrefixIsTheFirstNonEmptyPiece) {
    SharedConfig& shared = config();
    const std::vector<std::pair<StoredValue, std::optional<std::string>>> cases = {
        {text(".TEAM9.co.x"), "TEAM9"}, {text("..TEAM9"), "TEAM9"},
        {text("TEAM9"), "TEAM9"},       {text("..."), std::nullopt},
        {text(""), std::nullopt},       {StoredValue{std::int64_t{7}}, std::nullopt},
    };
    for (const auto& [group, expected] : cases) {
        keychain.items = {{{std::string(keychain::kClass), text("genp")},
                           {std::string(keychain::kAccount), text("velmorand.bundleSeedID")},
                           {std::string(keychain::kService), text("")},
                           {std::string(keychain::kAccessGroup), group}}};
        EXPECT_EQ(shared.bundleSeedID(), expected);
    }
}

TEST_F(ConfigFixture, MirrorJsonKeepsNumberKinds) {
    SharedConfig& shared = config();
    Values values = paired("A");
    values.bitrate = 2'500'000;
    values.fps = 30;
    values.quality = 1.0;
    values.scale = 0.5;
    shared.saveKeychain(values);

    ASSERT_EQ(keychain.items.size(), 2u);
    const auto& item = keychain.items[1];
    EXPECT_EQ(item.at(std::string(keychain::kAccessGroup)), text("TEAM123.co.velmorand.shared"));
    EXPECT_EQ(item.at(std::string(keychain::kAccessible)), text("akpu"));

    const std::string stored = *mirrorText();
    const json object = json::parse(stored);
    EXPECT_TRUE(object.at("fps").is_number_integer());
    EXPECT_TRUE(object.at("bitrate").is_number_integer());
    EXPECT_TRUE(object.at("quality").is_number_float());
    EXPECT_TRUE(object.at("scale").is_number_float());
    EXPECT_NE(stored.find("\"quality\":1.0"), std::string::npos) << stored;
    EXPECT_TRUE(object.at("deviceToken").is_string());
    // Absent fields are left out, never written as null.
    EXPECT_EQ(object.size(), 8u);
    EXPECT_FALSE(object.contains("appURL"));
    EXPECT_EQ(shared.loadKeychain(), values);
}

TEST_F(ConfigFixture, EmptyRecordIsAnEmptyObject) {
    SharedConfig& shared = config();
    shared.saveKeychain(Values{});
    EXPECT_EQ(mirrorText(), "{}");
    EXPECT_EQ(shared.loadKeychain(), Values{});
}

TEST_F(ConfigFixture, SavingReplacesTheItem) {
    SharedConfig& shared = config();
    shared.saveKeychain(paired("A"));
    shared.saveKeychain(paired("B"));
    EXPECT_EQ(keychain.items.size(), 2u);
    EXPECT_EQ(shared.loadKeychain(), paired("B"));
}

TEST_F(ConfigFixture, UnserialisableRecordLeavesTheMirrorAlone) {
    SharedConfig& shared = config();
    shared.saveKeychain(paired("A"));
    const int removes = keychain.removeCount;

    Values broken = paired("B");
    broken.quality = std::numeric_limits<double>::quiet_NaN();
    shared.saveKeychain(broken);
    Values badText = paired("C");
    badText.deviceName = "\xff\xfe";
    shared.saveKeychain(badText);

    EXPECT_EQ(keychain.removeCount, removes);
    EXPECT_EQ(shared.loadKeychain(), paired("A"));
}

TEST_F(ConfigFixture, FailedAddAfterDeleteLeavesNoMirror) {
    SharedConfig& shared = config();
    shared.saveKeychain(paired("A"));
    keychain.failAdds = true;
    shared.persist(paired("B"));

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
    const std::vector<std::pair<std::string, std::optional<Values>>> cases = {
        {R"({"fps":24.9,"deviceToken":5})", record([](Values& v) { v.fps = 24; })},
        {R"({"fps":"20","quality":"0.5","codec":7})", record([](Values&) {})},
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
        {R"("text")", std::nullopt},
        {R"({"accessKey":)", std::nullopt},
        {"", std::nullopt},
        {"{\"accessKey\":\"\xff\"}", std::nullopt},
    };
    for (const auto& [data, expected] : cases) {
        keychain.items.resize(1);
        keychain.items.push_back(mirrorItem(data));
        EXPECT_EQ(shared.loadKeychain(), expected) << data;
    }
}

}  // namespace
}  // namespace velmorand
