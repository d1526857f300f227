#include "velmorand/stream/LiveSettings.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace velmorand {
namespace {

struct Tier {
    std::string_view name;
    std::int64_t fps;
    double quality;
    double scale;
};

// What a viewer on a poor, an ordinary and a good link wants: fewer and smaller frames first,
// then sharper ones.
constexpr std::array<Tier, 3> kTiers{{
    {"low", 10, 0.3, 0.4},
    {"medium", 20, 0.5, 0.6},
    {"high", 30, 0.8, 1.0},
}};

}  // namespace

StreamConfig LiveSettings::config() const {
    StreamConfig effective = requested_;
    if (slowedDown_) {
        auto& fps = effective.encode.fps;
        fps = std::min(fps, std::max(kLowestSlowedFrameRate, fps / 2));
    }
    return effective;
}

bool LiveSettings::prefer(const std::optional<std::string>& codec) {
    if (!codec || (*codec != "jpeg" && *codec != "h264") || *codec == requested_.encode.codec) {
        return false;
    }
    requested_.encode.codec = *codec;
    return true;
}

void LiveSettings::request(std::optional<std::int64_t> fps, std::optional<double> quality,
                           std::optional<double> scale, const std::optional<std::string>& codec) {
    const auto& now = requested_.encode;
    SharedConfig::Values values;
    values.codec = codec.value_or(now.codec);
    values.fps = fps.value_or(now.fps);
    values.quality = quality.value_or(now.quality);
    values.scale = scale.value_or(now.scale);
    requested_.encode = SharedConfig::resolvedEncode(values);
}

bool LiveSettings::selectTier(const std::string& tier) {
    if (tier == "auto") {
        requested_.encode = started_.encode;
        return true;
    }
    const auto found = std::find_if(kTiers.begin(), kTiers.end(),
                                    [&tier](const Tier& preset) { return preset.name == tier; });
    if (found == kTiers.end()) {
        return false;
    }
    requested_.encode.fps = found->fps;
    requested_.encode.quality = found->quality;
    requested_.encode.scale = found->scale;
    return true;
}

LiveSettings::Qos LiveSettings::report(std::int64_t decodeQueue, double lossPct,
                                       Clock::time_point now) {
    if (decodeQueue >= kStrugglingDecodeQueue || lossPct >= kStrugglingLossPct) {
        lastStruggle_ = now;
        return std::exchange(slowedDown_, true) ? Qos::unchanged : Qos::slowedDown;
    }
    if (slowedDown_ && now - lastStruggle_ >= kRecovery) {
        slowedDown_ = false;
        return Qos::restored;
    }
    return Qos::unchanged;
}

}  // namespace velmorand
