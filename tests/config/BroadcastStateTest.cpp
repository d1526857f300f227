#include "velmorand/config/BroadcastState.h"

#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <tuple>
#include <vector>

#include <string>

namespace velmorand {
namespace {

using Phase = BroadcastState::Phase;

constexpr std::int64_t kNow = 1'700'000'000'000;

TEST(BroadcastStateTest, WhatTheBroadcastWroteReadsBackAndAnythingElseIsRefused) {
    // Members in order: phase, pid, viewOnly, viewers, operatedAtMs, detail.
    const BroadcastState live{Phase::live, 4242, true, 3, kNow, "après — 2 s"};
    EXPECT_EQ(BroadcastState::decode(live.encode()), live);

    const auto valid = nlohmann::json::parse(live.encode());
    // Each row changes one member of what the broadcast wrote (null: leaves it out).
    const std::tuple<const char*, const char*, nlohmann::json> changes[] = {
        {"an unknown phase", "phase", "watching"},
        {"no pid", "pid", nullptr},
        {"pid 0", "pid", 0},
        {"a pid as text", "pid", "7"},
        {"negative viewers", "viewers", -1},
        {"a million viewers", "viewers", 1'000'000},
        {"viewOnly as a number", "viewOnly", 1},
        {"a negative time", "operatedAtMs", -5},
        {"an escape in the detail", "detail", "\u001b[2J"},
        {"a line break in the detail", "detail", "a\nb"},
        {"a long detail", "detail", std::string(BroadcastState::kMaxDetailBytes + 1, 'x')},
    };
    std::vector<std::pair<std::string, std::string>> refused{
        {"not JSON", "live"},
        {"not an object", "[1]"},
        {"a large file", live.encode() + std::string(BroadcastState::kMaxEncodedBytes, ' ')},
    };
    for (const auto& [what, member, value] : changes) {
        auto changed = valid;
        if (value.is_null()) {
            changed.erase(member);
        } else {
            changed[member] = value;
        }
        refused.emplace_back(what, changed.dump());
    }
    for (const auto& [what, text] : refused) {
        EXPECT_FALSE(BroadcastState::decode(text)) << what;
    }
}

TEST(BroadcastStateTest, SaysWhatAPersonNeedsToKnow) {
    // -1: never operated.
    const auto at = [](Phase phase, int viewers, std::int64_t operatedAgoMs, bool viewOnly = false,
                       std::string detail = "") {
        const std::int64_t operatedAtMs = operatedAgoMs == -1 ? 0 : kNow - operatedAgoMs;
        return BroadcastState{phase, 7, viewOnly, viewers, operatedAtMs, std::move(detail)};
    };
    const std::pair<BroadcastState, std::string> cases[] = {
        {at(Phase::starting, 0, -1), "Starting…"},
        {at(Phase::connecting, 0, -1), "Connecting to the relay…"},
        {at(Phase::live, 0, -1), "Live — nobody is watching"},
        {at(Phase::live, 1, -1), "Live — 1 viewer watching"},
        {at(Phase::live, 2, 0), "Live — 2 viewers watching, one is operating the screen"},
        {at(Phase::live, 2, BroadcastState::kOperatingWindowMs - 1),
         "Live — 2 viewers watching, one is operating the screen"},
        // Commands long past, and times from a clock since set back, are not someone operating now.
        {at(Phase::live, 2, BroadcastState::kOperatingWindowMs), "Live — 2 viewers watching"},
        {at(Phase::live, 2, -60'000), "Live — 2 viewers watching"},
        {at(Phase::live, 1, 0, true), "Live — 1 viewer watching (view only)"},
        {at(Phase::paused, 1, 0), "Paused — no viewer wants the stream"},
        {at(Phase::restarting, 0, -1, false, "it died — starting it again in 2 s"),
         "Restarting — it died — starting it again in 2 s"},
        {at(Phase::stopped, 0, -1), "Stopping…"},
    };
    for (const auto& [state, line] : cases) {
        EXPECT_EQ(state.summary(kNow), line) << state.encode();
    }
}

// The process that holds the lock is the one running; what the file says is believed only when
// that process wrote it.
TEST(BroadcastStateTest, ARunningBroadcastIsTheLocksHolderAndOnlyItsOwnStateCounts) {
    const auto written = [](Phase phase, long pid) {
        return BroadcastState{phase, pid, false, 1, 0, ""}.encode();
    };
    // The running process and the file's text; whether it runs, whether the text is believed, and
    // the line shown.
    using Row =
        std::tuple<std::optional<long>, std::optional<std::string>, bool, bool, std::string>;
    const Row rows[] = {
        {std::nullopt, std::nullopt, false, false, "Not running"},
        {std::nullopt, written(Phase::stopped, 7), false, false, "Not running"},
        {std::nullopt, "{garbage", false, false, "Not running"},
        // Killed outright, or the machine lost power: it never said it stopped.
        {std::nullopt, written(Phase::live, 7), false, false,
         "Not running — it ended without stopping; see `velmorand log`"},
        {7, written(Phase::live, 7), true, true, "Live — 1 viewer watching"},
        // An earlier broadcast's state, and a broadcast that has just taken the lock.
        {8, written(Phase::live, 7), true, false, "Starting…"},
        {0, std::nullopt, true, false, "Starting…"},
    };
    for (const auto& [runningPid, text, running, stateBelieved, summary] : rows) {
        const auto seen = BroadcastSighting::of(runningPid, text, kNow);
        SCOPED_TRACE(text.value_or("(no file)"));
        EXPECT_EQ(seen.running, running);
        EXPECT_EQ(seen.pid, runningPid.value_or(0));
        EXPECT_EQ(seen.state.has_value(), stateBelieved);
        EXPECT_EQ(seen.summary, summary);
    }
}

}  // namespace
}  // namespace velmorand
