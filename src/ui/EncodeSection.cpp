#include "velmorand/ui/EncodeSection.h"

#include <algorithm>
#include <cmath>

#include "velmorand/config/SharedConfig.h"

namespace velmorand {
namespace {

// A fraction that is not a number is stored as the lower bound, not carried into the store.
double clampedFraction(double value) {
    if (std::isnan(value)) {
        return EncodeSection::kStoredFractionMin;
    }
    return std::clamp(value, EncodeSection::kStoredFractionMin, EncodeSection::kStoredFractionMax);
}

}  // namespace

void EncodeSection::stepFps(int steps) {
    fps_ = std::clamp(fps_ + steps, kFpsMin, kFpsMax);
}

void EncodeSection::loadEncode() {
    const auto resolved = SharedConfig::resolvedEncode(config_.load());
    codec_ = resolved.codec;
    fps_ = resolved.fps;
    quality_ = resolved.quality;
    scale_ = resolved.scale;
}

void EncodeSection::persistEncode() {
    auto values = config_.load();
    values.codec = SharedConfig::normalizeCodec(codec_);
    values.fps = std::clamp(fps_, kStoredFpsMin, kStoredFpsMax);
    values.quality = clampedFraction(quality_);
    values.scale = clampedFraction(scale_);
    config_.persist(values);
    status_ = kSavedText;
}

std::string EncodeSection::fpsText() const {
    return "FPS " + std::to_string(fps_);
}

std::string EncodeSection::percentText(double fraction) {
    // llround rounds halves away from zero.
    return std::to_string(std::llround(fraction * 100)) + "%";
}

}  // namespace velmorand
