#include "velmorand/config/SharedConfig.h"

#include <cmath>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ConfigFixture.h"

namespace velmorand {
namespace {

using Values = SharedConfig::Values;
using Seed = std::map<std::string, StoredValue>;
using testing::ConfigFixture;

void seed(SettingsStore& store, const Seed& entries) {
    for (const auto& [key, value] : entries) {
        store.setObject(key, value);
    }
}

// --- load: which copy wins, and what it repairs ---

enum class Source { group, mirror, standard };

struct LoadCase {
    const char* name;
    Seed group;
    std::optional<Values> mirror;
    Values standard;
    Source expected;
    bool migrates = false;
    bool groupAvailable = true;
    bool groupOpens = true;
};

Values unpairedWithKey(const std::string& key) {
    Values values;
    values.accessKey = key;
    values.fps = 10;
    return values;
}

Values preferencesOnly() {
    Values values;
    values.codec = "h264";
    values.quality = 0.8;
    return values;
}

Values pairedWithoutKey() {
    Values values = ConfigFixture::paired("S");
    values.accessKey.reset();
    return values;
}

std::vector<LoadCase> loadCases() {
    const auto paired = &ConfigFixture::paired;
    return {
        {"GroupAccessKeyBeatsPairedMirror",
         {{"accessKey", std::string("G")}},
         paired("K"),
         paired("S"),
         Source::group},
        {"GroupEmptyTokenWins",
         {{"deviceToken", std::string()}, {"relayWsUrl", std::string("wss://g")}},
         paired("K"),
         {},
         Source::group},
        {"GroupNumericTokenCounts",
         {{"deviceToken", std::int64_t{42}}},
         paired("K"),
         {},
         Source::group},
        {"GroupPreferencesAloneDoNotDecide",
         {{"fps", std::int64_t{30}}, {"codec", std::string("h264")}},
         paired("K"),
         paired("S"),
         Source::mirror},
        {"PairedMirrorIsNotCopiedToGroup", {}, paired("K"), paired("S"), Source::mirror},
        {"UnpairedMirrorWithOtherKeyBeatsPairedStandard",
         {},
         unpairedWithKey("A"),
         paired("B"),
         Source::mirror},
        {"UnpairedMirrorBeatsPairedStandardWithoutKey",
         {},
         unpairedWithKey("A"),
         pairedWithoutKey(),
         Source::mirror},
        {"SameKeyMigratesStandard", {}, unpairedWithKey("A"), paired("A"), Source::standard, true},
        {"MirrorWithoutKeyMigratesStandard",
         {},
         preferencesOnly(),
         paired("S"),
         Source::standard,
         true},
        {"NoMirrorMigratesStandard",
         {{"fps", std::int64_t{30}}},
         std::nullopt,
         paired("S"),
         Source::standard,
         true},
        {"MigratesIntoMirrorOnlyWhenGroupUnavailable",
         {},
         std::nullopt,
         paired("S"),
         Source::standard,
         true,
         false},
        {"MigratesIntoMirrorOnlyWhenSuiteWontOpen",
         {},
         std::nullopt,
         paired("S"),
         Source::standard,
         true,
         true,
         false},
        {"GroupSkippedWhenUnavailable",
         {{"accessKey", std::string("G")}},
         paired("K"),
         {},
         Source::mirror,
         false,
         false},
        {"UnpairedMirrorBeatsGroupPreferences",
         {{"fps", std::int64_t{30}}},
         preferencesOnly(),
         preferencesOnly(),
         Source::mirror},
        {"GroupPreferencesWhenNothingIsPaired",
         {{"fps", std::int64_t{30}}},
         std::nullopt,
         unpairedWithKey("S"),
         Source::group},
        {"EmptyTokenInStandardIsNotPaired",
         {},
         std::nullopt,
         [] {
             Values values = ConfigFixture::paired("S");
             values.deviceToken = "";
             return values;
         }(),
         Source::group},
        {"StandardWhenGroupUnavailable",
         {{"fps", std::int64_t{30}}},
         std::nullopt,
         unpairedWithKey("S"),
         Source::standard,
         false,
         false},
    };
}

class LoadPrecedenceTest : public ConfigFixture, public ::testing::WithParamInterface<LoadCase> {};

TEST_P(LoadPrecedenceTest, PicksTheRightCopyAndRepairsOnlyByMigration) {
    const LoadCase& c = GetParam();
    SharedConfig& shared = config(c.groupAvailable);
    seed(group(), c.group);
    if (c.mirror) {
        shared.saveKeychain(*c.mirror);
    }
    SharedConfig::write(c.standard, standard());
    stores.groupOpens = c.groupOpens;

    const Values groupBefore = SharedConfig::values(group());
    const auto groupSnapshot = group().snapshot();
    const auto standardSnapshot = standard().snapshot();
    const auto mirrorBefore = mirrorText();
    const int addsBefore = keychain.addCount;

    const Values loaded = shared.load();

    switch (c.expected) {
        case Source::group:
            EXPECT_EQ(loaded, groupBefore);
            break;
        case Source::mirror:
            EXPECT_EQ(loaded, *c.mirror);
            break;
        case Source::standard:
            EXPECT_EQ(loaded, c.standard);
            break;
    }
    EXPECT_EQ(standard().snapshot(), standardSnapshot) << "the standard store is never rewritten";

    const bool groupReachable = c.groupAvailable && c.groupOpens;
    if (c.migrates) {
        EXPECT_EQ(shared.loadKeychain(), c.standard);
        if (groupReachable) {
            Values expectedGroup = c.standard;
            // Numbers absent from the migrated record keep what the group held.
            if (!expectedGroup.fps) {
                expectedGroup.fps = groupBefore.fps;
            }
            EXPECT_EQ(SharedConfig::values(group()), expectedGroup);
            EXPECT_EQ(group().synchronizeCount, 1);
        } else {
            EXPECT_EQ(group().snapshot(), groupSnapshot);
        }
    } else {
        EXPECT_EQ(group().snapshot(), groupSnapshot);
        EXPECT_EQ(group().synchronizeCount, 0);
        EXPECT_EQ(mirrorText(), mirrorBefore);
        // Only the probe item may ever be added by a load that writes nothing.
        EXPECT_LE(keychain.addCount - addsBefore, mirrorBefore ? 0 : 1);
    }
}

INSTANTIATE_TEST_SUITE_P(Matrix, LoadPrecedenceTest, ::testing::ValuesIn(loadCases()),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(ConfigFixture, LoadWithoutTeamPrefixIgnoresTheMirror) {
    keychain.defaultAccessGroup.reset();
    SharedConfig& shared = config();
    SharedConfig::write(paired("S"), standard());

    EXPECT_EQ(shared.load(), paired("S"));
    EXPECT_EQ(SharedConfig::values(group()), paired("S"));
    EXPECT_TRUE(keychain.items.empty());
}

// --- persist and save ---

TEST_F(ConfigFixture, PersistKeepsAbsentNumbersButErasesAbsentText) {
    SharedConfig& shared = config();
    for (auto* store : {&group(), &standard()}) {
        seed(*store, {{"fps", std::int64_t{30}},
                      {"quality", 0.7},
                      {"bitrate", std::int64_t{4'000'000}},
                      {"codec", std::string("h264")},
                      {"relayRegion", std::string("eu")}});
    }
    Values values;
    values.deviceName = "Phone";
    values.scale = 0.25;

    shared.persist(values);

    for (auto* store : {&group(), &standard()}) {
        const Seed expected = {{"fps", std::int64_t{30}},
                               {"quality", 0.7},
                               {"bitrate", std::int64_t{4'000'000}},
                               {"scale", 0.25},
                               {"deviceName", std::string("Phone")}};
        EXPECT_EQ(store->snapshot(), (std::map<std::string, StoredValue, std::less<>>(
                                         expected.begin(), expected.end())));
        EXPECT_EQ(store->synchronizeCount, 1);
    }
    // The mirror is replaced whole, so it holds only what was persisted.
    EXPECT_EQ(shared.loadKeychain(), values);
}

TEST_F(ConfigFixture, SaveRecordsThePairingAndKeepsPreferences) {
    SharedConfig& shared = config();
    Values preferences;
    preferences.codec = "h264";
    preferences.fps = 48;
    preferences.relayRegion = "us";
    preferences.bridgeUrl = "http://bridge";
    SharedConfig::write(preferences, group());

    const HandshakeResult result{"tok", "wss://relay", "dev-1", "Desk phone", true};
    shared.save(" key ", "https://app.example", result);

    Values expected = preferences;
    expected.accessKey = " key ";
    expected.appURL = "https://app.example";
    expected.deviceToken = "tok";
    expected.relayWsUrl = "wss://relay";
    expected.deviceId = "dev-1";
    expected.deviceName = "Desk phone";
    EXPECT_EQ(SharedConfig::values(group()), expected);
    EXPECT_EQ(SharedConfig::values(standard()), expected);
    EXPECT_EQ(shared.loadKeychain(), expected);
    EXPECT_EQ(shared.load(), expected);
    EXPECT_FALSE(group().object("webrtcEnabled").has_value());
}

// --- clear ---

TEST_F(ConfigFixture, ClearErasesEverythingButTheProbe) {
    SharedConfig& shared = config();
    Values everything = paired("A");
    everything.appURL = "https://app";
    everything.deviceId = "d";
    everything.codec = "h264";
    everything.bitrate = 1;
    everything.fps = 2;
    everything.quality = 0.3;
    everything.scale = 0.4;
    everything.relayRegion = "eu";
    everything.relayOverride = "wss://mine";
    everything.bridgeUrl = "http://b";
    shared.persist(everything);
    ASSERT_EQ(group().snapshot().size(), 14u);

    shared.clear();

    EXPECT_TRUE(group().empty());
    EXPECT_TRUE(standard().empty());
    EXPECT_EQ(group().synchronizeCount, 2);
    EXPECT_EQ(standard().synchronizeCount, 2);
    ASSERT_EQ(keychain.items.size(), 1u);
    EXPECT_EQ(keychain.items[0].at(std::string(keychain::kAccount)),
              StoredValue{std::string("velmorand.bundleSeedID")});
    const Values loaded = shared.load();
    EXPECT_EQ(loaded, Values{});
    EXPECT_FALSE(loaded.isPaired());
}

TEST_F(ConfigFixture, ClearWithoutTeamPrefixDeletesNothingFromTheKeychain) {
    keychain.defaultAccessGroup.reset();
    SharedConfig& shared = config();
    shared.persist(paired("A"));
    shared.clear();

    EXPECT_EQ(keychain.removeCount, 0);
    EXPECT_TRUE(standard().empty());
}

// --- reading stored values ---

TEST(SharedConfigStoreTest, NumbersReadThroughTheirNumberView) {
    constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
    constexpr double kInf = std::numeric_limits<double>::infinity();
    struct Case {
        std::optional<StoredValue> stored;
        std::optional<std::int64_t> integer;
        std::optional<double> real;
    };
    const std::vector<Case> cases = {
        {std::nullopt, std::nullopt, std::nullopt},
        {StoredValue{std::int64_t{24}}, 24, 24.0},
        {StoredValue{24.9}, 24, 24.9},
        {StoredValue{-24.9}, -24, -24.9},
        {StoredValue{true}, 1, 1.0},
        {StoredValue{false}, 0, 0.0},
        {StoredValue{std::string("24")}, std::nullopt, std::nullopt},
        {StoredValue{Bytes{1, 2}}, std::nullopt, std::nullopt},
        {StoredValue{1e19}, std::nullopt, 1e19},
        {StoredValue{-9223372036854775808.0}, std::numeric_limits<std::int64_t>::min(),
         -9223372036854775808.0},
        {StoredValue{9223372036854775808.0}, std::nullopt, 9223372036854775808.0},
        {StoredValue{-kInf}, std::nullopt, -kInf},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(SharedConfig::intValue(c.stored), c.integer);
        EXPECT_EQ(SharedConfig::doubleValue(c.stored), c.real);
    }
    EXPECT_EQ(SharedConfig::intValue(StoredValue{kNaN}), std::nullopt);
    EXPECT_TRUE(std::isnan(*SharedConfig::doubleValue(StoredValue{kNaN})));
}

TEST(SharedConfigStoreTest, TextFieldsReadNumbersAsDecimalText) {
    testing::InMemorySettingsStore store;
    seed(store, {{"deviceToken", std::int64_t{42}},
                 {"relayWsUrl", 2.5},
                 {"accessKey", Bytes{65}},
                 {"codec", std::string()},
                 {"fps", std::string("30")},
                 {"quality", std::int64_t{1}}});
    const Values values = SharedConfig::values(store);

    EXPECT_EQ(values.deviceToken, "42");
    EXPECT_EQ(values.relayWsUrl, "2.5");
    EXPECT_EQ(values.accessKey, std::nullopt);
    EXPECT_EQ(values.codec, "");
    EXPECT_EQ(values.fps, std::nullopt);
    EXPECT_EQ(values.quality, 1.0);
}

// --- effective encode settings ---

TEST(SharedConfigEncodeTest, NormalizeCodec) {
    const std::vector<std::pair<std::optional<std::string>, std::string>> cases = {
        {std::nullopt, "jpeg"},
        {"h264", "h264"},
        {" \nH264\t ", "h264"},
        {"hEvC", "jpeg"},
        {"H.264", "jpeg"},
        {"h.264", "jpeg"},
        {"", "jpeg"},
        {"JPEG", "jpeg"},
        {"h 264", "jpeg"},
        {"h2645", "jpeg"},
        {"\xC2\xA0h264\xE2\x80\x83", "h264"},
    };
    for (const auto& [input, expected] : cases) {
        EXPECT_EQ(SharedConfig::normalizeCodec(input), expected) << input.value_or("<absent>");
    }
}

TEST(SharedConfigEncodeTest, ResolvedEncodeClampsAndDefaults) {
    constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
    constexpr double kInf = std::numeric_limits<double>::infinity();
    struct Case {
        std::optional<std::string> codec;
        std::optional<std::int64_t> fps;
        std::optional<double> quality;
        std::optional<double> scale;
        SharedConfig::EncodeValues expected;
    };
    const std::vector<Case> cases = {
        {{}, {}, {}, {}, {"jpeg", 20, 0.4, 0.5}},
        {" H264", 0, 0.0, 0.0, {"h264", 1, 0.1, 0.1}},
        {"vp9", 240, 1.5, 2.0, {"jpeg", 60, 1.0, 1.0}},
        {{}, -5, 0.05, 0.1, {"jpeg", 1, 0.1, 0.1}},
        {{}, 60, 1.0, 0.75, {"jpeg", 60, 1.0, 0.75}},
        {{}, 1, kNaN, kNaN, {"jpeg", 1, 0.1, 0.1}},
        {{}, std::numeric_limits<std::int64_t>::max(), kInf, -kInf, {"jpeg", 60, 1.0, 0.1}},
    };
    for (const auto& c : cases) {
        Values values;
        values.codec = c.codec;
        values.fps = c.fps;
        values.quality = c.quality;
        values.scale = c.scale;
        values.bitrate = 9;
        EXPECT_EQ(SharedConfig::resolvedEncode(values), c.expected)
            << c.fps.value_or(-1) << " " << c.quality.value_or(-1);
    }
}

}  // namespace
}  // namespace velmorand
