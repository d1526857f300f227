#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "velmorand/platform/H264CompressionSession.h"
#include "velmorand/platform/StoredValue.h"

namespace velmorand {

// The H.264 side of one stream: a compression session at a fixed picture size and the parameter
// sets it produced. Every key frame it hands on begins with the SPS and PPS, whether or not the
// session repeated them; the first access unit is a key frame. A session error is fatal: it is
// reported once and the encoder produces nothing more.
struct H264Encoder {
    int width = 0;
    int height = 0;
    int frameRate = 0;
    // kbit/s.
    int bitRate = 0;
    std::unique_ptr<H264CompressionSession> session;
    Bytes sps;
    Bytes pps;
    // An access unit carrying the current SPS and PPS has been handed on.
    bool configurationSent = false;
    bool failed = false;
    bool forceKeyFrame = true;

    // New parameter sets, each one NAL unit without its start code.
    std::function<void(const Bytes& sps, const Bytes& pps)> onConfiguration;
    // One access unit in Annex B, valid during the call.
    std::function<void(std::span<const std::uint8_t> accessUnit, bool keyFrame, bool parameterSets)>
        onAccessUnit;
    std::function<void(const std::string& description)> onFatalError;

    // Opens the session for the fields above; false, after reporting it, when that fails.
    bool start(const H264SessionFactory& makeSession);
    void encode(const I420Picture& picture, std::int64_t timestampUs);
    // Within the same stream when the session can, else with a new session and a key frame.
    void retune(int newFrameRate, int newBitRate, const H264SessionFactory& makeSession);

  private:
    void fail(const std::string& description);
    void deliver(std::span<const std::uint8_t> unit, bool keyFrame);
};

// The bit rate a stream gets when the stored preference sets none: `quality` (0.1 to 1.0) buys
// between 0.04 and 0.22 bits per pixel per frame, which keeps screen text legible at 0.4 and
// near-lossless at 1.0; the result is kept within 150 kbit/s and 20 Mbit/s. A stored preference is
// kbit/s, within the same bounds.
int streamBitRateKbps(int width, int height, std::int64_t frameRate, double quality,
                      std::optional<std::int64_t> storedKbps);

}  // namespace velmorand
