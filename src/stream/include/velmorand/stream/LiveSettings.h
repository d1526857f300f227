#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "velmorand/config/SharedConfig.h"

namespace velmorand {

// What a stream runs with.
struct StreamConfig {
    SharedConfig::EncodeValues encode;
    // The stored bit-rate preference in kbit/s; absent: derived from quality and picture size.
    std::optional<std::int64_t> bitRateKbps;

    bool operator==(const StreamConfig&) const = default;
};

// The running broadcast's settings as its viewers change them. The stored preferences only set
// where a broadcast starts; viewers' requests apply at once and last until the broadcast ends.
class LiveSettings {
  public:
    using Clock = std::chrono::steady_clock;

    // A viewer struggles when it reports this long a decode queue, or this much loss.
    static constexpr std::int64_t kStrugglingDecodeQueue = 3;
    static constexpr double kStrugglingLossPct = 5.0;
    // Reports must stay clean this long before the frame rate is given back.
    static constexpr Clock::duration kRecovery = std::chrono::seconds(5);
    static constexpr std::int64_t kLowestSlowedFrameRate = 5;

    explicit LiveSettings(StreamConfig started) : started_(started), requested_(started) {}

    // The requested settings, with the frame rate halved (not below 5) while a viewer struggles.
    StreamConfig config() const;
    const StreamConfig& requested() const { return requested_; }

    // A stream request's preferred codec: "jpeg" or "h264" select it, anything else changes
    // nothing. True when the codec changed.
    bool prefer(const std::optional<std::string>& codec);
    // Each value given replaces the current one, bounded as stored preferences are: fps 1 to
    // 60, quality and scale 0.1 to 1.0, the codec normalised.
    void request(std::optional<std::int64_t> fps, std::optional<double> quality,
                 std::optional<double> scale, const std::optional<std::string>& codec);
    // "low", "medium" and "high" select a preset (the codec stays), "auto" the settings the
    // broadcast started with. False for any other tier, which changes nothing.
    bool selectTier(const std::string& tier);
    // After the H.264 encoder failed.
    void fallBackToJpeg() { requested_.encode.codec = "jpeg"; }

    enum class Qos { unchanged, slowedDown, restored };
    Qos report(std::int64_t decodeQueue, double lossPct, Clock::time_point now);
    bool slowedDown() const { return slowedDown_; }

  private:
    const StreamConfig started_;
    StreamConfig requested_;
    bool slowedDown_ = false;
    Clock::time_point lastStruggle_{};
};

}  // namespace velmorand
