#include "velmorand/extension/IndicatorModel.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace velmorand::extension {
namespace {

using Phase = BroadcastState::Phase;
using Notice = IndicatorModel::Notice;

constexpr std::int64_t kStart = 1'700'000'000'000;

const Notice kLive{"Your screen is being broadcast",
                   "Viewers on the Velmorand dashboard can see this screen and operate it."};
const Notice kOperated{"A viewer is operating this screen",
                       "Their taps and typing reach this desktop until you stop the broadcast."};

// A sighting's members in order: running, pid, state, endedWithoutStopping, summary.
BroadcastSighting running(Phase phase, std::int64_t operatedAtMs = 0, bool viewOnly = false) {
    const BroadcastState state{phase, 7, viewOnly, 1, operatedAtMs, ""};
    return {true, 7, state, false, state.summary(kStart)};
}

BroadcastSighting gone() {
    return {false, 0, std::nullopt, false, "Not running"};
}

// Each row is one reading, a second after the last: what the broadcast said, then what the
// indicator announces, whether it shows someone operating, and whether it goes.
TEST(IndicatorModelTest, AnnouncesTheLiveBroadcastAndTheFirstOperatorOnceAndGoesWithIt) {
    const std::tuple<const char*, BroadcastSighting, std::vector<Notice>, bool, bool> rows[] = {
        {"not running yet", gone(), {}, false, false},
        {"just took the lock", {true, 0, std::nullopt, false, "Starting…"}, {}, false, false},
        {"connecting", running(Phase::connecting), {}, false, false},
        {"live", running(Phase::live), {kLive}, false, false},
        {"still live", running(Phase::live), {}, false, false},
        {"a viewer operates", running(Phase::live, kStart + 3'000), {kOperated}, true, false},
        {"and goes on", running(Phase::live, kStart + 5'000), {}, true, false},
        {"paused, nobody operating", running(Phase::paused), {}, false, false},
        {"operated again", running(Phase::live, kStart + 8'000), {}, true, false},
        {"stopped", gone(), {}, false, true},
    };
    IndicatorModel model(kStart);
    std::int64_t now = kStart;
    for (const auto& [what, seen, notices, operating, ended] : rows) {
        const auto view = model.next(seen, now);
        EXPECT_EQ(view.notices, notices) << what;
        EXPECT_EQ(view.operating, operating) << what;
        EXPECT_EQ(view.ended, ended) << what;
        EXPECT_EQ(view.tooltip, "Velmorand — " + seen.summary) << what;
        now += 1'000;
    }
}

TEST(IndicatorModelTest, SaysWhatViewersMayDoAndGoesWhenNoBroadcastComes) {
    IndicatorModel viewOnly(kStart);
    EXPECT_EQ(viewOnly.next(running(Phase::live, kStart, true), kStart).notices,
              (std::vector<Notice>{{"Your screen is being broadcast",
                                    "Viewers on the Velmorand dashboard can see this screen, and "
                                    "nothing more."}}));

    IndicatorModel neverStarted(kStart);
    EXPECT_FALSE(neverStarted.next(gone(), kStart + IndicatorModel::kStartGraceMs - 1).ended);
    EXPECT_TRUE(neverStarted.next(gone(), kStart + IndicatorModel::kStartGraceMs).ended);
}

}  // namespace
}  // namespace velmorand::extension
