#include "velmorand/config/BroadcastState.h"

#include <array>
#include <nlohmann/json.hpp>
#include <utility>

#include "velmorand/platform/Text.h"

namespace velmorand {
namespace {

constexpr std::array<std::pair<BroadcastState::Phase, std::string_view>, 6> kPhaseNames{{
    {BroadcastState::Phase::starting, "starting"},
    {BroadcastState::Phase::connecting, "connecting"},
    {BroadcastState::Phase::live, "live"},
    {BroadcastState::Phase::paused, "paused"},
    {BroadcastState::Phase::restarting, "restarting"},
    {BroadcastState::Phase::stopped, "stopped"},
}};

std::optional<BroadcastState::Phase> phaseNamed(std::string_view name) {
    for (const auto& [phase, text] : kPhaseNames) {
        if (text == name) {
            return phase;
        }
    }
    return std::nullopt;
}

// Only what a person can read: the file is writable by anything the user runs.
bool isPlainText(std::string_view text) {
    if (!isValidUtf8(text)) {
        return false;
    }
    for (const unsigned char byte : text) {
        if (byte < 0x20 || byte == 0x7f) {
            return false;
        }
    }
    return true;
}

}  // namespace

bool BroadcastState::operatingAt(std::int64_t nowMs) const {
    return !viewOnly && operatedAtMs > 0 && nowMs >= operatedAtMs &&
           nowMs - operatedAtMs < kOperatingWindowMs;
}

std::string_view BroadcastState::phaseName(Phase phase) {
    for (const auto& [candidate, text] : kPhaseNames) {
        if (candidate == phase) {
            return text;
        }
    }
    return "starting";
}

std::string BroadcastState::encode() const {
    return nlohmann::ordered_json{
        {"phase", phaseName(phase)},    {"pid", pid},
        {"viewOnly", viewOnly},         {"viewers", viewers},
        {"operatedAtMs", operatedAtMs}, {"detail", detail},
    }
        .dump();
}

std::optional<BroadcastState> BroadcastState::decode(std::string_view text) {
    if (text.size() > kMaxEncodedBytes) {
        return std::nullopt;
    }
    const auto json = nlohmann::json::parse(text, nullptr, /*allow_exceptions=*/false);
    if (!json.is_object()) {
        return std::nullopt;
    }
    const auto phase = json.find("phase");
    const auto pid = json.find("pid");
    const auto viewOnly = json.find("viewOnly");
    const auto viewers = json.find("viewers");
    const auto operatedAt = json.find("operatedAtMs");
    const auto detail = json.find("detail");
    if (phase == json.end() || !phase->is_string() || pid == json.end() ||
        !pid->is_number_integer() || viewOnly == json.end() || !viewOnly->is_boolean() ||
        viewers == json.end() || !viewers->is_number_integer() || operatedAt == json.end() ||
        !operatedAt->is_number_integer() || detail == json.end() || !detail->is_string()) {
        return std::nullopt;
    }
    BroadcastState state;
    const auto named = phaseNamed(phase->get<std::string>());
    state.pid = pid->get<long>();
    state.viewers = viewers->get<int>();
    state.operatedAtMs = operatedAt->get<std::int64_t>();
    state.detail = detail->get<std::string>();
    if (!named || state.pid <= 0 || state.viewers < 0 || state.viewers > kMaxViewers ||
        state.operatedAtMs < 0 || state.detail.size() > kMaxDetailBytes ||
        !isPlainText(state.detail)) {
        return std::nullopt;
    }
    state.phase = *named;
    state.viewOnly = viewOnly->get<bool>();
    return state;
}

std::string BroadcastState::summary(std::int64_t nowMs) const {
    std::string line;
    switch (phase) {
        case Phase::starting:
            return "Starting…";
        case Phase::connecting:
            return "Connecting to the relay…";
        case Phase::paused:
            line = "Paused — no viewer wants the stream";
            break;
        case Phase::restarting:
            return detail.empty() ? "Restarting…" : "Restarting — " + detail;
        case Phase::stopped:
            return "Stopping…";
        case Phase::live:
            line = viewers == 0   ? "Live — nobody is watching"
                   : viewers == 1 ? "Live — 1 viewer watching"
                                  : "Live — " + std::to_string(viewers) + " viewers watching";
            if (operatingAt(nowMs)) {
                line += ", one is operating the screen";
            }
            break;
    }
    if (viewOnly) {
        line += " (view only)";
    }
    return line;
}

BroadcastSighting BroadcastSighting::of(std::optional<long> runningPid,
                                        const std::optional<std::string>& text,
                                        std::int64_t nowMs) {
    using Phase = BroadcastState::Phase;
    auto said = text ? BroadcastState::decode(*text) : std::nullopt;
    if (!runningPid) {
        const bool unexpected = said && said->phase != Phase::stopped;
        return {.running = false,
                .pid = 0,
                .state = std::nullopt,
                .endedWithoutStopping = unexpected,
                .summary = unexpected
                               ? "Not running — it ended without stopping; see `velmorand log`"
                               : "Not running"};
    }
    // What an earlier broadcast said is not this one's.
    if (said && said->pid != *runningPid) {
        said.reset();
    }
    auto summary = said ? said->summary(nowMs) : std::string("Starting…");
    return {.running = true,
            .pid = *runningPid,
            .state = std::move(said),
            .endedWithoutStopping = false,
            .summary = std::move(summary)};
}

std::int64_t BroadcastState::wallClockMs() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

}  // namespace velmorand
