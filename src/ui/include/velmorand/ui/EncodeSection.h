#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace velmorand {

class SharedConfig;

// The encode preferences of the main screen: edited here, written to the shared configuration
// only on save, read by the upload extension at its next broadcast start.
class EncodeSection {
  public:
    // What the controls offer.
    static constexpr std::int64_t kFpsMin = 5;
    static constexpr std::int64_t kFpsMax = 60;
    static constexpr double kQualityMin = 0.2;
    static constexpr double kScaleMin = 0.25;
    static constexpr double kFractionMax = 1.0;
    static constexpr double kFractionStep = 0.05;

    // What the store accepts. Wider than the controls on purpose: they guard the store against
    // any value, not only those the controls can produce.
    static constexpr std::int64_t kStoredFpsMin = 1;
    static constexpr std::int64_t kStoredFpsMax = 60;
    static constexpr double kStoredFractionMin = 0.1;
    static constexpr double kStoredFractionMax = 1.0;

    static constexpr std::string_view kSavedText = "Saved — applies on next Start Broadcast.";

    explicit EncodeSection(SharedConfig& config) : config_(config) {}

    const std::string& codec() const { return codec_; }
    std::int64_t fps() const { return fps_; }
    double quality() const { return quality_; }
    double scale() const { return scale_; }
    const std::string& status() const { return status_; }

    void setCodec(std::string codec) { codec_ = std::move(codec); }
    void setFps(std::int64_t fps) { fps_ = fps; }
    void setQuality(double quality) { quality_ = quality; }
    void setScale(double scale) { scale_ = scale; }
    // One step of the frame-rate stepper; stays within kFpsMin..kFpsMax.
    void stepFps(int steps);

    // Replaces the edited values with the stored ones, resolved to their effective form.
    void loadEncode();
    // Writes the edited values, clamped to the store's bounds, keeping every other stored field.
    void persistEncode();

    // "FPS 20".
    std::string fpsText() const;
    // "Quality 43%", "Scale 50%".
    std::string qualityText() const { return "Quality " + percentText(quality_); }
    std::string scaleText() const { return "Scale " + percentText(scale_); }
    // The fraction as a whole percentage, halves away from zero: 0.425 reads "43%".
    static std::string percentText(double fraction);

  private:
    SharedConfig& config_;
    std::string codec_ = "jpeg";
    std::int64_t fps_ = 20;
    double quality_ = 0.4;
    double scale_ = 0.5;
    std::string status_;
};

}  // namespace velmorand
