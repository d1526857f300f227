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
    config().persist(every);
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
    config().persist(values);

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
    EXPECT_EQ(config().loadKeychain(), values);
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

}  // namespace
}  // namespace velmorand
