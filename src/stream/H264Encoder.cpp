#include "velmorand/stream/H264Encoder.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <optional>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

namespace velmorand {
namespace {

constexpr std::uint8_t kSpsType = 7;
constexpr std::uint8_t kPpsType = 8;
constexpr std::array<std::uint8_t, 4> kStartCode{0, 0, 0, 1};
constexpr int kMinKbps = 150;
constexpr int kMaxKbps = 20'000;

struct NalUnit {
    std::span<const std::uint8_t> body;
    std::uint8_t type = 0;
};

// The NAL units of an Annex B byte stream, without their start codes.
std::vector<NalUnit> nalUnits(std::span<const std::uint8_t> stream) {
    std::vector<NalUnit> units;
    const auto size = stream.size();
    std::size_t start = std::string_view::npos;
    std::size_t i = 0;
    while (i + 3 <= size) {
        if (stream[i] == 0 && stream[i + 1] == 0 && stream[i + 2] == 1) {
            if (start != std::string_view::npos) {
                std::size_t end = i;
                while (end > start && stream[end - 1] == 0) {
                    --end;
                }
                units.push_back({stream.subspan(start, end - start), 0});
            }
            i += 3;
            start = i;
        } else {
            ++i;
        }
    }
    if (start != std::string_view::npos && start < size) {
        units.push_back({stream.subspan(start), 0});
    }
    std::erase_if(units, [](const NalUnit& unit) { return unit.body.empty(); });
    for (auto& unit : units) {
        unit.type = unit.body[0] & 0x1FU;
    }
    return units;
}

}  // namespace

int streamBitRateKbps(int width, int height, std::int64_t frameRate, double quality,
                      std::optional<std::int64_t> storedKbps) {
    if (storedKbps && *storedKbps > 0) {
        return static_cast<int>(std::clamp<std::int64_t>(*storedKbps, kMinKbps, kMaxKbps));
    }
    const double bitsPerPixel = 0.02 + 0.2 * std::clamp(quality, 0.1, 1.0);
    const double kbps = static_cast<double>(width) * height * static_cast<double>(frameRate) *
                        bitsPerPixel / 1000.0;
    return static_cast<int>(std::clamp(std::lround(kbps), long{kMinKbps}, long{kMaxKbps}));
}

bool H264Encoder::start(const H264SessionFactory& makeSession) {
    auto made = makeSession({width, height, frameRate, bitRate});
    if (auto* error = std::get_if<EncodeError>(&made)) {
        fail(error->description);
        return false;
    }
    session = std::move(std::get<std::unique_ptr<H264CompressionSession>>(made));
    forceKeyFrame = true;
    configurationSent = false;
    return true;
}

void H264Encoder::retune(int newFrameRate, int newBitRate, const H264SessionFactory& makeSession) {
    if (failed || (newFrameRate == frameRate && newBitRate == bitRate)) {
        return;
    }
    frameRate = newFrameRate;
    bitRate = newBitRate;
    if (!session || !session->retune(frameRate, bitRate)) {
        start(makeSession);
    }
}

void H264Encoder::encode(const I420Picture& picture, std::int64_t timestampUs) {
    if (failed || !session) {
        return;
    }
    auto result = session->encode(picture, timestampUs, forceKeyFrame);
    if (auto* error = std::get_if<EncodeError>(&result)) {
        fail(error->description);
        return;
    }
    const auto& unit = std::get<H264AccessUnit>(result);
    if (unit.bytes.empty()) {
        fail("the encoder held a picture back");
        return;
    }
    deliver(unit.bytes, unit.keyFrame);
}

void H264Encoder::deliver(std::span<const std::uint8_t> unit, bool keyFrame) {
    const auto units = nalUnits(unit);
    const auto find = [&units](std::uint8_t type) {
        return std::find_if(units.begin(), units.end(),
                            [type](const NalUnit& nal) { return nal.type == type; });
    };
    const auto sps = find(kSpsType);
    const auto pps = find(kPpsType);
    if (sps != units.end() && pps != units.end()) {
        Bytes newSps(sps->body.begin(), sps->body.end());
        Bytes newPps(pps->body.begin(), pps->body.end());
        if (newSps != this->sps || newPps != this->pps) {
            this->sps = std::move(newSps);
            this->pps = std::move(newPps);
            configurationSent = false;
            if (onConfiguration) {
                onConfiguration(this->sps, this->pps);
            }
        }
    }
    if (!keyFrame && forceKeyFrame) {
        fail("the encoder did not make the key frame it was asked for");
        return;
    }
    const bool leadsWithParameterSets =
        units.size() >= 2 && units[0].type == kSpsType && units[1].type == kPpsType;
    std::span<const std::uint8_t> out = unit;
    // Key frames that come without parameter sets go out with the stored ones in front.
    Bytes withParameterSets;
    if (keyFrame && !leadsWithParameterSets) {
        if (this->sps.empty() || this->pps.empty()) {
            fail("the encoder made a key frame without parameter sets");
            return;
        }
        for (const Bytes* set : {&this->sps, &this->pps}) {
            withParameterSets.insert(withParameterSets.end(), kStartCode.begin(), kStartCode.end());
            withParameterSets.insert(withParameterSets.end(), set->begin(), set->end());
        }
        withParameterSets.insert(withParameterSets.end(), unit.begin(), unit.end());
        out = withParameterSets;
    }
    if (keyFrame) {
        forceKeyFrame = false;
        configurationSent = true;
    }
    if (onAccessUnit) {
        onAccessUnit(out, keyFrame, keyFrame);
    }
}

void H264Encoder::fail(const std::string& description) {
    if (std::exchange(failed, true)) {
        return;
    }
    session.reset();
    if (onFatalError) {
        onFatalError(description);
    }
}

}  // namespace velmorand
