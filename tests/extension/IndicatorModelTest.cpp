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

BroadcastSighting running(Phase phase, std::int64_t operatedAtMs = 0, bool viewOnly = false) {
    const BroadcastState state{.phase = phase,
                               .pid = 7,
                               .viewOnly = viewOnly,
                               .viewers = 1,
                               .operatedAtMs = operatedAtMs,
                               .detail = ""};
    return {.running = true,
            .pid = 7,
            .state = state,
            .endedWithoutStopping = false,
            .summary = state.summary(kStart)};
}

BroadcastSighting gone() {
    return {.running = false,
            .pid = 0,
            .state = {},
            .endedWithoutStopping = false,
            .summary = "Not running"};
}

// Each row is one reading, a second after the last: what the broadcast said, then what the
// indicator announces and whether it goes.
TEST(IndicatorModelTest, AnnouncesTheLiveBroadcastAndTheFirstOperatorOnceAndGoesWithIt) {
    struct Row {
        const char* what;
        BroadcastSighting seen;
        std::vector<Notice> notices;
        bool operating;
        bool ended;
    };
    const Row rows[] = {
        {"not running yet", gone(), {}, false, false},
        {"just took the lock",
         {.running = true,
          .pid = 0,
          .state = {},
          .endedWithoutStopping = false,
          .summary = "Starting…"},
         {},
         false,
         false},
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
    for (const auto& row : rows) {
        const auto view = model.next(row.seen, now);
        EXPECT_EQ(view.notices, row.notices) << row.what;
        EXPECT_EQ(view.operating, row.operating) << row.what;
        EXPECT_EQ(view.ended, row.ended) << row.what;
        EXPECT_EQ(view.tooltip, "Velmorand — " + row.seen.summary) << row.what;
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
