#include "velmorand/config/SharedConfig.h"

#include <cmath>
#include <limits>
#include <map>

#include "ConfigFixture.h"

namespace velmorand {
namespace {

using Values = SharedConfig::Values;
using Seed = std::map<std::string, StoredValue>;
using testing::ConfigFixture;
using testing::profilePlist;
using testing::signedContainer;

void seed(SettingsStore& store, const Seed& entries) {
    for (const auto& [key, value] : entries) {
        store.setObject(key, value);
    }
}

Values with(Values values, const std::function<void(Values&)>& change) {
    change(values);
    return values;
}

// Which copy load() returns, and whether it repairs the group store and the mirror from it.
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

class LoadPrecedenceTest : public ConfigFixture, public ::testing::WithParamInterface<LoadCase> {};

TEST_P(LoadPrecedenceTest, PicksTheRightCopyAndRepairsOnlyByMigration) {
    const LoadCase& c = GetParam();
    if (!c.groupAvailable) {
        std::filesystem::remove(dir.path() / "embedded.mobileprovision");
    }
    SharedConfig& shared = config;
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

    const Values expected[] = {groupBefore, c.mirror.value_or(Values{}), c.standard};
    EXPECT_EQ(loaded, expected[static_cast<int>(c.expected)]);
    EXPECT_EQ(standard().snapshot(), standardSnapshot) << "the standard store is never rewritten";
    if (c.migrates) {
        EXPECT_EQ(shared.loadKeychain(), c.standard);
        if (c.groupAvailable && c.groupOpens) {
            // Numbers absent from the migrated record keep what the group held.
            EXPECT_EQ(SharedConfig::values(group()), with(c.standard, [&](Values& v) {
                          v.fps = v.fps ? v.fps : groupBefore.fps;
                      }));
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

const Values kPairedK = ConfigFixture::paired("K");
const Values kPairedS = ConfigFixture::paired("S");
const Values kUnpairedA = with({}, [](Values& v) {
    v.accessKey = "A";
    v.fps = 10;
});
const Values kPreferences = with({}, [](Values& v) {
    v.codec = "h264";
    v.quality = 0.8;
});
const Values kPairedB = ConfigFixture::paired("B");
const Values kPairedEmptyToken = with(kPairedS, [](Values& v) { v.deviceToken = ""; });
const Seed kGroupFps = {{"fps", std::int64_t{30}}, {"codec", "h264"}};
using enum Source;

// clang-format off
const LoadCase kLoadCases[] = {
    // A group store holding a token or an access key, as any string, decides alone.
    {"GroupAccessKeyBeatsPairedMirror", {{"accessKey", "G"}}, kPairedK, kPairedS, group},
    {"GroupEmptyTokenWins", {{"deviceToken", ""}, {"relayWsUrl", "wss://g"}}, kPairedK, {}, group},
    {"GroupPreferencesAloneDoNotDecide", kGroupFps, kPairedK, kPairedS, mirror},
    {"GroupSkippedWhenUnavailable", {{"accessKey", "G"}}, kPairedK, {}, mirror, false, false},
    {"PairedMirrorIsNotCopiedToGroup", {}, kPairedK, kPairedS, mirror},
    // A paired standard store loses to an unpaired mirror that holds another access key.
    {"UnpairedMirrorWithOtherKeyBeatsPairedStandard", {}, kUnpairedA, kPairedB, mirror},
    {"SameKeyMigratesStandard", {}, kUnpairedA, ConfigFixture::paired("A"), standard, true},
    {"MirrorWithoutKeyMigratesStandard", {}, kPreferences, kPairedS, standard, true},
    {"NoMirrorMigratesStandard", kGroupFps, std::nullopt, kPairedS, standard, true},
    {"MigratesIntoMirrorOnlyWhenGroupUnavailable", {}, {}, kPairedS, standard, true, false},
    // Nothing paired: the mirror, else the group's preferences, else the standard store.
    {"UnpairedMirrorBeatsGroupPreferences", kGroupFps, kPreferences, kPreferences, mirror},
    {"GroupPreferencesWhenNothingIsPaired", kGroupFps, std::nullopt, kUnpairedA, group},
    {"EmptyTokenInStandardIsNotPaired", {}, std::nullopt, kPairedEmptyToken, group},
    {"StandardWhenGroupUnavailable", kGroupFps, std::nullopt, kUnpairedA, standard, false, false},
};
// clang-format on

INSTANTIATE_TEST_SUITE_P(Matrix, LoadPrecedenceTest, ::testing::ValuesIn(kLoadCases),
                         [](const auto& info) { return std::string(info.param.name); });

TEST_F(ConfigFixture, EveryFieldIsReadBackFromBothStores) {
    const Values every = everyField("A");
    config.persist(every);
    EXPECT_EQ(SharedConfig::values(group()), every);
    EXPECT_EQ(SharedConfig::values(standard()), every);
}

TEST_F(ConfigFixture, PersistKeepsAbsentNumbersButErasesAbsentText) {
    const Seed before = {{"fps", std::int64_t{30}},
                         {"quality", 0.7},
                         {"bitrate", std::int64_t{4}},
                         {"codec", "h264"},
                         {"relayRegion", "eu"}};
    seed(group(), before);
    seed(standard(), before);
    const Values values = with({}, [](Values& v) {
        v.deviceName = "Phone";
        v.scale = 0.25;
    });
    config.persist(values);

    const Seed after = {{"fps", std::int64_t{30}},
                        {"quality", 0.7},
                        {"bitrate", std::int64_t{4}},
                        {"scale", 0.25},
                        {"deviceName", "Phone"}};
    for (auto* store : {&group(), &standard()}) {
        const auto snapshot = store->snapshot();
        EXPECT_EQ(Seed(snapshot.begin(), snapshot.end()), after);
        EXPECT_EQ(store->synchronizeCount, 1);
    }
    // The mirror is replaced whole, so it holds only what was persisted.
    EXPECT_EQ(config.loadKeychain(), values);
}

TEST(SharedConfigStoreTest, NumbersReadThroughTheirNumberViewAndTextAsText) {
    constexpr double kInf = std::numeric_limits<double>::infinity();
    const std::tuple<std::optional<StoredValue>, std::optional<std::int64_t>, std::optional<double>>
        cases[] = {
            {std::nullopt, std::nullopt, std::nullopt},
            {std::int64_t{24}, 24, 24.0},
            // Truncated toward zero; out of range is absent.
            {24.9, 24, 24.9},
            {"24", std::nullopt, std::nullopt},
            {-9223372036854775808.0, std::numeric_limits<std::int64_t>::min(),
             -9223372036854775808.0},
            {9223372036854775808.0, std::nullopt, 9223372036854775808.0},
            {-kInf, std::nullopt, -kInf},
        };
    for (const auto& [stored, integer, real] : cases) {
        EXPECT_EQ(SharedConfig::intValue(stored), integer);
        EXPECT_EQ(SharedConfig::doubleValue(stored), real);
    }
    const StoredValue nan{std::numeric_limits<double>::quiet_NaN()};
    EXPECT_EQ(SharedConfig::intValue(nan), std::nullopt);
    EXPECT_TRUE(std::isnan(*SharedConfig::doubleValue(nan)));

    testing::InMemorySettingsStore store;
    seed(store, {{"deviceToken", std::int64_t{42}},
                 {"relayWsUrl", 2.5},
                 {"accessKey", Bytes{65}},
                 {"codec", ""},
                 {"fps", "30"},
                 {"quality", std::int64_t{1}}});
    const Values values = SharedConfig::values(store);
    EXPECT_EQ(values, with({}, [](Values& v) {
                  v.deviceToken = "42";
                  v.relayWsUrl = "2.5";
                  v.codec = "";
                  v.quality = 1.0;
              }));
}

TEST(SharedConfigEncodeTest, NormalizeCodecAcceptsOnlyH264) {
    const std::pair<std::optional<std::string>, const char*> cases[] = {
        {std::nullopt, "jpeg"},
        {" \nH264\t ", "h264"},
        {"\xC2\xA0h264\xE2\x80\x83", "h264"},
        {"H.264", "jpeg"},
        {"h2645", "jpeg"}};
    for (const auto& [input, expected] : cases) {
        EXPECT_EQ(SharedConfig::normalizeCodec(input), expected) << input.value_or("<absent>");
    }
}

TEST(SharedConfigEncodeTest, ResolvedEncodeClampsAndDefaults) {
    constexpr double kNaN = std::numeric_limits<double>::quiet_NaN();
    constexpr double kInf = std::numeric_limits<double>::infinity();
    const struct {
        std::optional<std::string> codec;
        std::optional<std::int64_t> fps;
        std::optional<double> quality, scale;
        SharedConfig::EncodeValues expected;
    } cases[] = {
        {{}, {}, {}, {}, {"jpeg", 20, 0.4, 0.5}},
        {" H264", 0, 0.0, 0.0, {"h264", 1, 0.1, 0.1}},
        {"vp9", 240, 1.5, 2.0, {"jpeg", 60, 1.0, 1.0}},
        {{}, 1, kNaN, kNaN, {"jpeg", 1, 0.1, 0.1}},
        {{}, std::numeric_limits<std::int64_t>::max(), kInf, -kInf, {"jpeg", 60, 1.0, 0.1}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        const Values values{{}, {},    {},        {},      {}, {}, c.codec,
                            9,  c.fps, c.quality, c.scale, {}, {}, {}};
        EXPECT_EQ(SharedConfig::resolvedEncode(values), c.expected);
    }
}

constexpr const char* kGroup = "<string>group.co.velmorand.connect</string>";

std::string profile(const std::string& groups) {
    return signedContainer(profilePlist(groups));
}

TEST(AppGroupTest, ReadsTheGroupListOutOfTheEmbeddedProfile) {
    const std::string bare = profilePlist(std::string("<array>") + kGroup + "</array>");
    const std::pair<std::optional<std::string>, bool> cases[] = {
        {std::nullopt, false},
        {bare, true},
        // High Latin-1 bytes inside the payload decode one character each.
        {profile(std::string("<array><string>Caf\xe9 \xa9</string>") + kGroup + "</array>"), true},
        {profile("<array><string>group.co.Velmorand.connect</string></array>"), false},
        {profile(kGroup), false},
        {std::string("<?xml version=\"1.0\"?><plist version=\"1.0\"><array>") + kGroup +
             "</array></plist>",
         false},
        {std::string("<?xml version=\"1.0\"?><plist version=\"1.0\"><dict><key>Entitlements</key>"
                     "<array>") +
             kGroup + "</array></dict></plist>",
         false},
    };
    for (const auto& row : cases) {
        SCOPED_TRACE(&row - cases);
        const auto& [bytes, expected] = row;
        testing::TempDir dir;
        if (bytes) {
            testing::writeProfile(dir.path(), *bytes);
        }
        testing::FakeBundle bundle(dir.path());
        EXPECT_EQ(AppGroup::hasAppGroupInEmbeddedProvision(bundle), expected);
        EXPECT_EQ(AppGroup(bundle).available(), expected);
    }
}

StoredValue text(const char* value) {
    return StoredValue{std::string(value)};
}

KeychainAttributes probeItem(StoredValue accessGroup) {
    return {{std::string(keychain::kClass), text("genp")},
            {std::string(keychain::kAccount), text("velmorand.bundleSeedID")},
            {std::string(keychain::kService), text("")},
            {std::string(keychain::kAccessGroup), std::move(accessGroup)}};
}

// The mirror item as another reader of the shared group asks for it, with one more attribute.
KeychainAttributes mirrorItem(std::string_view name, StoredValue value) {
    return {{std::string(keychain::kClass), text("genp")},
            {std::string(keychain::kService), text("co.velmorand.connect.config")},
            {std::string(keychain::kAccount), text("sharedConfig")},
            {std::string(keychain::kAccessGroup), text("TEAM123.co.velmorand.shared")},
            {std::string(name), std::move(value)}};
}

TEST_F(ConfigFixture, TeamPrefixComesFromTheProbeItemAddedOnFirstUse) {
    SharedConfig& shared = config;
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
    SharedConfig& shared = config;
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
    EXPECT_EQ(mirror, mirrorItem(keychain::kAccessible, text("cku")));

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
    SharedConfig& shared = config;
    ASSERT_TRUE(shared.bundleSeedID());
    const Values numbers = with({}, [](Values& v) {
        v.fps = 1;
        v.quality = 1.0;
        v.bitrate = -3;
    });
    const std::pair<std::string, std::optional<Values>> cases[] = {
        {R"({"fps":24.9,"deviceToken":5})", with({}, [](Values& v) { v.fps = 24; })},
        {R"({"fps":true,"quality":1,"bitrate":-3})", numbers},
        {R"({"fps":1e30,"scale":18446744073709551615,"bitrate":18446744073709551615})",
         with({}, [](Values& v) { v.scale = 18446744073709551615.0; })},
        {R"({"deviceToken":null,"relayWsUrl":["x"],"accessKey":"k","extra":1})",
         with({}, [](Values& v) { v.accessKey = "k"; })},
        {R"([{"accessKey":"k"}])", std::nullopt},
    };
    for (const auto& [data, expected] : cases) {
        keychain.items.resize(1);
        keychain.items.push_back(mirrorItem(keychain::kValueData, Bytes(data.begin(), data.end())));
        EXPECT_EQ(shared.loadKeychain(), expected) << data;
    }
}

}  // namespace
}  // namespace velmorand
