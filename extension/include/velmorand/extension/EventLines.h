#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json_fwd.hpp>

#include "velmorand/config/SharedConfig.h"
#include "velmorand/platform/ScreenCapture.h"
#include "velmorand/remote/RemoteControl.h"
#include "velmorand/stream/ScreenStream.h"

namespace velmorand {
struct Control;
}

namespace velmorand::extension {

// The log lines of the broadcast's events. None of them carries the device token, the access key,
// or what a viewer typed or put on the clipboard.
class EventLines {
  public:
    EventLines() = delete;

    static constexpr std::string_view kAuthRejected =
        "relay rejected the device token — re-pair this device";
    static constexpr std::string_view kNotPaired =
        "not paired — pair this device in Velmorand Connect first";

    // "encode: jpeg, 20 fps, quality 40%, scale 50%".
    static std::string encode(const SharedConfig::EncodeValues& values);
    static std::string relay(const std::string& url, bool customUrl);
    // "relay: refused ws://example.org/relay — <why>".
    static std::string relayRefused(const std::string& url, const std::string& why);
    static std::string alreadyRunning(std::optional<long> pid);

    // What became of a viewer's command: "control: tap x=10 y=20", "control: text 2 characters",
    // "control: key \"hyper+q\" — refused: not a key name". Typed and clipboard texts appear by
    // their length only.
    static std::string control(const Control& control, const RemoteControl::Outcome& outcome);
    static std::string notCarriedOut(const Control& command);
    // "remote control: 3 waiting commands dropped, everything let go — the last viewer left".
    static std::string commandsDropped(std::size_t count, std::string_view why);
    static std::string remoteControlUnavailable(const std::string& reason);
    static constexpr std::string_view kViewOnly =
        "view-only: viewers' commands are logged, not carried out";
    static std::string needStream(const std::optional<std::string>& prefer);
    static std::string encodeSettings(std::optional<std::int64_t> fps,
                                      std::optional<double> quality, std::optional<double> scale,
                                      const std::optional<std::string>& codec);
    static std::string streamControl(bool streaming);
    static std::string requestIdr();
    static std::string streamQuality(const std::string& tier);
    static std::string unknownTier(const std::string& tier);
    // `count`: how many reports have arrived so far, this one included.
    static std::string qos(std::int64_t rttMs, double lossPct,
                           const std::optional<std::string>& tier, std::int64_t decodeQueue,
                           std::int64_t jitterMs, std::uint64_t count);
    static std::string relayQos(double congestion);

    // What the stream does. "stream: h264, 30 fps, quality 60%, scale 50%".
    static std::string streamSettings(const SharedConfig::EncodeValues& values);
    static std::string newStream(const std::string& codec, ScreenSize screen, ScreenSize picture);
    static std::string streamStats(const StreamStats& stats);
    static std::string streamUnavailable(const std::string& reason);
    static std::string h264Failed(const std::string& description);
    static std::string streamStopped(const std::string& description);
    // "stream: cannot open the screen again (why) — trying again in 4 s".
    static std::string streamReopenFailed(const std::string& why,
                                          std::chrono::duration<double> next);
    static std::string slowedDown(std::int64_t decodeQueue, double lossPct, std::int64_t fromFps,
                                  std::int64_t toFps);
    static std::string restored(std::int64_t fps);

    // `text` as a JSON string literal.
    static std::string quoted(std::string_view text);
    // Shortest form that reads back the same: 10, 0.25.
    static std::string number(double value);
};

}  // namespace velmorand::extension
