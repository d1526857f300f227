#include "velmorand/extension/EventLines.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <type_traits>
#include <variant>

#include <nlohmann/json.hpp>

#include "velmorand/platform/UrlComponents.h"
#include "velmorand/relay/Control.h"
#include "velmorand/remote/KeyCombination.h"

namespace velmorand::extension {
namespace {

std::string percent(double fraction) {
    return std::to_string(std::lround(fraction * 100)) + "%";
}

// "jpeg, 20 fps, quality 40%, scale 50%".
std::string settings(const SharedConfig::EncodeValues& values) {
    return values.codec + ", " + std::to_string(values.fps) + " fps, quality " +
           percent(values.quality) + ", scale " + percent(values.scale);
}

template <typename T, typename Format>
std::string orNone(const std::optional<T>& value, Format format) {
    return value ? format(*value) : std::string("(none)");
}

// UTF-8 characters, counted by their lead bytes.
std::size_t characterCount(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U;
    }));
}

std::string characters(std::string_view text) {
    const auto count = characterCount(text);
    return std::to_string(count) + (count == 1 ? " character" : " characters");
}

// A key by its name; a character by its count, as typed text is, unless ctrl, alt or super make
// it a shortcut rather than typing.
std::string keyPayload(const std::string& name) {
    const auto combination = KeyCombination::parse(name);
    if (!combination) {
        return characters(name);
    }
    const bool shortcut =
        std::any_of(combination->modifiers.begin(), combination->modifiers.end(),
                    [](NamedKey modifier) { return modifier != NamedKey::shift; });
    if (std::holds_alternative<NamedKey>(combination->key) || shortcut) {
        return EventLines::quoted(name);
    }
    return "1 character";
}

std::string point(double x, double y) {
    return "x=" + EventLines::number(x) + " y=" + EventLines::number(y);
}

std::string payload(const Control::Command& command) {
    return std::visit(
        [](const auto& c) -> std::string {
            using C = std::decay_t<decltype(c)>;
            if constexpr (std::is_same_v<C, Control::Swipe>) {
                return "from " + point(c.from.x, c.from.y) + " to " + point(c.to.x, c.to.y) +
                       " ms=" + std::to_string(c.ms);
            } else if constexpr (std::is_same_v<C, Control::LongPress>) {
                return point(c.x, c.y) + " ms=" + std::to_string(c.ms);
            } else if constexpr (std::is_same_v<C, Control::PushMedia>) {
                // The media itself would swamp the log.
                return "fileName=" + EventLines::quoted(c.fileName) +
                       " mime=" + EventLines::quoted(c.mime) + " base64 " +
                       std::to_string(c.dataB64.size()) + " bytes";
            } else if constexpr (std::is_same_v<C, Control::Text> ||
                                 std::is_same_v<C, Control::SetClipboard>) {
                return characters(c.text);
            } else if constexpr (std::is_same_v<C, Control::Key>) {
                return keyPayload(c.key);
            } else if constexpr (std::is_same_v<C, Control::Button>) {
                return EventLines::quoted(c.button);
            } else if constexpr (std::is_same_v<C, Control::OpenURL>) {
                return EventLines::quoted(urlWithoutSecrets(c.url));
            } else if constexpr (std::is_same_v<C, Control::LaunchApp> ||
                                 std::is_same_v<C, Control::KillApp>) {
                return EventLines::quoted(c.bundleId);
            } else {
                return point(c.x, c.y);
            }
        },
        command);
}

}  // namespace

std::string EventLines::quoted(std::string_view text) {
    return nlohmann::json(std::string(text))
        .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string EventLines::number(double value) {
    if (!std::isfinite(value)) {
        return std::isnan(value) ? "nan" : (value > 0 ? "inf" : "-inf");
    }
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return std::string(buffer, result.ptr);
}

std::string EventLines::encode(const SharedConfig::EncodeValues& values) {
    return "encode: " + settings(values);
}

std::string EventLines::relay(const std::string& url, bool customUrl) {
    return "relay: " + urlWithoutSecrets(url + "/device") +
           (customUrl ? " (custom URL)" : " (from pairing)");
}

std::string EventLines::relayRefused(const std::string& url, const std::string& why) {
    return "relay: refused " + urlWithoutSecrets(url) + " — " + why;
}

std::string EventLines::alreadyRunning(std::optional<long> pid) {
    return (pid ? "a broadcast is already running (pid " + std::to_string(*pid) + ")"
                : std::string("a broadcast is already running")) +
           " — stop it with `velmorand broadcast --stop`";
}

std::string EventLines::control(const Control& control, const RemoteControl::Outcome& outcome) {
    std::string line = "control: " + std::string(control.name()) + " " + payload(control.command);
    if (outcome.refusal) {
        return line + " — refused: " + *outcome.refusal;
    }
    return outcome.detail.empty() ? line : line + " — " + outcome.detail;
}

std::string EventLines::notCarriedOut(const Control& command) {
    return control(command, {}) + " — not carried out (view-only)";
}

std::string EventLines::commandsDropped(std::size_t count, std::string_view why) {
    return "remote control: " + std::to_string(count) +
           (count == 1 ? " waiting command" : " waiting commands") +
           " dropped, everything let go — " + std::string(why);
}

std::string EventLines::remoteControlUnavailable(const std::string& reason) {
    return "remote control is unavailable: " + reason + " — view-only";
}

std::string EventLines::needStream(const std::optional<std::string>& prefer) {
    return "need_stream" + (prefer ? " (prefer " + quoted(*prefer) + ")" : std::string());
}

std::string EventLines::encodeSettings(std::optional<std::int64_t> fps,
                                       std::optional<double> quality, std::optional<double> scale,
                                       const std::optional<std::string>& codec) {
    const auto integer = [](std::int64_t value) { return std::to_string(value); };
    return "encode_settings: fps=" + orNone(fps, integer) + " quality=" + orNone(quality, number) +
           " scale=" + orNone(scale, number) + " codec=" + orNone(codec, quoted);
}

std::string EventLines::streamControl(bool streaming) {
    return std::string("stream_control: ") + (streaming ? "on" : "off");
}

std::string EventLines::requestIdr() {
    return "request_idr: key frame requested";
}

std::string EventLines::streamQuality(const std::string& tier) {
    return "stream_quality: tier " + quoted(tier);
}

std::string EventLines::unknownTier(const std::string& tier) {
    return "stream_quality: unknown tier " + quoted(tier) + " ignored";
}

std::string EventLines::qos(std::int64_t rttMs, double lossPct,
                            const std::optional<std::string>& tier, std::int64_t decodeQueue,
                            std::int64_t jitterMs, std::uint64_t count) {
    return "qos #" + std::to_string(count) + ": rtt=" + std::to_string(rttMs) +
           "ms loss=" + number(lossPct) + "% tier=" + orNone(tier, quoted) +
           " decodeQueue=" + std::to_string(decodeQueue) + " jitter=" + std::to_string(jitterMs) +
           "ms";
}

std::string EventLines::relayQos(double congestion) {
    return "relay_qos: congestion=" + number(congestion);
}

std::string EventLines::streamSettings(const SharedConfig::EncodeValues& values) {
    return "stream: " + settings(values);
}

std::string EventLines::newStream(const std::string& codec, ScreenSize screen, ScreenSize picture) {
    return "stream: new " + codec + " stream, " + std::to_string(picture.width) + "x" +
           std::to_string(picture.height) + " from a " + std::to_string(screen.width) + "x" +
           std::to_string(screen.height) + " screen";
}

std::string EventLines::streamStats(const StreamStats& stats) {
    return "stream: " + std::to_string(stats.sent) + " frames sent, " +
           std::to_string(stats.dropped) + " dropped in the last " +
           std::to_string(ScreenStream::kStatsInterval.count()) + " s";
}

std::string EventLines::streamUnavailable(const std::string& reason) {
    return "stream: " + reason + " — no picture; the relay link stays up";
}

std::string EventLines::h264Failed(const std::string& description) {
    return "stream: the H.264 encoder failed (" + description + ") — going on in JPEG";
}

std::string EventLines::streamStopped(const std::string& description) {
    return "stream: stopped — " + description;
}

std::string EventLines::streamReopenFailed(const std::string& why,
                                           std::chrono::duration<double> next) {
    return "stream: cannot capture the screen again (" + why + ") — trying again in " +
           std::to_string(std::lround(next.count())) + " s";
}

std::string EventLines::slowedDown(std::int64_t decodeQueue, double lossPct, std::int64_t fromFps,
                                   std::int64_t toFps) {
    return "stream: a viewer is falling behind (decode queue " + std::to_string(decodeQueue) +
           ", loss " + number(lossPct) + "%) — " + std::to_string(fromFps) + " fps down to " +
           std::to_string(toFps);
}

std::string EventLines::restored(std::int64_t fps) {
    return "stream: viewers keep up again — back to " + std::to_string(fps) + " fps";
}

}  // namespace velmorand::extension
