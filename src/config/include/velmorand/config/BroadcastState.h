#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace velmorand {

// What a running broadcast tells the application, the command line and its indicator about
// itself: one small JSON file, rewritten whole whenever what a person would see changes.
struct BroadcastState {
    enum class Phase { starting, connecting, live, paused, restarting, stopped };
    // A viewer whose last command came this long ago is no longer operating the screen.
    static constexpr std::int64_t kOperatingWindowMs = 10'000;
    // Larger files, longer texts and larger counts are not ours: the file is refused.
    static constexpr std::size_t kMaxEncodedBytes = 4096;
    static constexpr std::size_t kMaxDetailBytes = 512;
    static constexpr int kMaxViewers = 100'000;

    Phase phase = Phase::starting;
    // The broadcast's supervising process: the one to ask to stop.
    long pid = 0;
    // Viewers' commands are logged and not carried out.
    bool viewOnly = false;
    // Viewers heard from lately; at least one while the stream is wanted.
    int viewers = 0;
    // When a viewer's command last arrived, in milliseconds since the epoch; 0: never.
    std::int64_t operatedAtMs = 0;
    // Restarting: why, and when it starts again.
    std::string detail;

    bool operator==(const BroadcastState&) const = default;

    bool operatingAt(std::int64_t nowMs) const;
    std::string encode() const;
    // Absent for anything this program did not write: too large, not JSON, out of range.
    static std::optional<BroadcastState> decode(std::string_view text);
    static std::string_view phaseName(Phase phase);

    // One line for people, e.g. "Live — 2 viewers watching, one is operating the screen".
    std::string summary(std::int64_t nowMs) const;

    // The clock the published times are in: milliseconds since the epoch.
    static std::int64_t wallClockMs();
};

// A broadcast as the programs around it find it.
struct BroadcastSighting {
    bool running = false;
    // 0 while unknown: the broadcast has just started.
    long pid = 0;
    // What the running broadcast said last; absent when it has said nothing yet.
    std::optional<BroadcastState> state;
    // Not running, and the last one never said it stopped: killed, crashed, or the power went.
    bool endedWithoutStopping = false;
    // "Not running", or what it says, e.g. "Live — 1 viewer watching".
    std::string summary;

    // From the id of the process running the broadcast (absent: none runs) and the text last
    // published (an earlier broadcast's, maybe).
    static BroadcastSighting of(std::optional<long> runningPid,
                                const std::optional<std::string>& text, std::int64_t nowMs);
};

}  // namespace velmorand
