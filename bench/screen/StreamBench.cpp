// velmorand_bench_stream: the screen stream of velmorand-broadcast measured end to end. The bench
// starts its own X server (1920×1080×24) with velmorand_bench_scene on it, plays the relay on
// loopback, stores a pairing pointing at itself in a temporary data directory and starts the
// extension there as the application does. It decodes the frames itself and reads back the time
// the scene drew into each picture.
//
// Release builds only, under the shared build lock:
//   flock /tmp/velmorand-build.lock cmake --build --preset release
//       --target velmorand_bench_stream   (one command line; it pulls in the extension and scene)
//   build/release/bench/velmorand_bench_stream --mode MODE [--codec jpeg|h264] [--scale S]
//       [--fps N] [--quality Q] [--seconds N] [--json FILE]
//   --mode glass   glass-to-glass latency: decoded by the bench − the time drawn in the picture
//   --mode stages  capture, conversion, encoding and decoding timed alone, in process (--frames N)
//   --mode cpu     CPU per frame of the extension against ffmpeg (X11) or GStreamer (Wayland)
//                  doing the same work (--pairs N)
//   --mode probes  latency probe round trips with no stream, then under a 1080p stream
//   --mode still   the extension's CPU while the screen does not change
//   --mode memory  the extension's resident memory while the relay reads slowly (--minutes N)
//   --mode arrival paint to arrival through GNOME's screen cast, read in process (Wayland only)
// --desktop wayland runs inside a Wayland session (tests/wayland/headless-gnome --size 1920x1080)
// with the same picture in a Qt window; x11, the default, on a private Xvfb.
// Exit status 0 whatever the figures, 2 when the bench itself could not run, 130 when stopped by
// a signal.
#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFile>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "Decoder.h"
#include "GnomeScreenCast.h"
#include "Harness.h"
#include "Relay.h"
#include "Rig.h"
#include "Stats.h"
#include "TimeCode.h"
#include "velmorand/codec/LibyuvPictureConverter.h"
#include "velmorand/codec/TurboJpegCompressor.h"
#include "velmorand/codec/X264CompressionSession.h"
#include "velmorand/stream/H264Encoder.h"
#include "velmorand/x11/XcbScreenCapture.h"

namespace velmorand::bench {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;

constexpr int kHarnessFailure = 2;
constexpr int kInterrupted = 130;

struct Options {
    std::string mode;
    EncodePreferences encode;
    double seconds = 0;
    double warmupSeconds = 2;
    int pairs = 3;
    double minutes = 10;
    int frames = 300;
    double sceneFps = 60;
    int sampleSeconds = 10;
    double probeGapMs = 0;
    ThrottledRelay::Pace pace;
    std::string jsonPath;
    std::string dumpDirectory;
    QString ffmpeg;
    QString gstreamer;
    Programs programs;
    Desktop desktop = Desktop::x11;
    bool keepFiles = false;
};

std::chrono::milliseconds milliseconds(double seconds) {
    return std::chrono::milliseconds(static_cast<long long>(seconds * 1000));
}

// Even sides for 4:2:0, never larger than the screen: as the stream sizes its pictures.
int pictureSide(int screenSide, double scale) {
    const auto scaled = static_cast<int>(std::lround(screenSide * scale));
    return std::max(2, std::min(scaled, screenSide) & ~1);
}

int pictureWidth(const Options& o) {
    return pictureSide(Rig::kScreenWidth, o.encode.scale);
}
int pictureHeight(const Options& o) {
    return pictureSide(Rig::kScreenHeight, o.encode.scale);
}

// The bit rate the stream derives for its H.264 session (no stored bit rate).
int streamKbps(const Options& o) {
    return streamBitRateKbps(pictureWidth(o), pictureHeight(o), o.encode.fps, o.encode.quality,
                             std::nullopt);
}

int jpegQuality(const Options& o) {
    return std::clamp(static_cast<int>(std::lround(o.encode.quality * 100)), 1, 100);
}

std::string settingsLine(const Options& o) {
    char line[200];
    std::snprintf(
        line, sizeof line, "%s, %s, scale %.2g (%dx%d), %lld fps, quality %.2g%s",
        o.desktop == Desktop::wayland ? "Wayland" : "X11", o.encode.codec.c_str(), o.encode.scale,
        pictureWidth(o), pictureHeight(o), static_cast<long long>(o.encode.fps), o.encode.quality,
        o.encode.codec == "h264" ? (", " + std::to_string(streamKbps(o)) + " kbit/s").c_str() : "");
    return line;
}

json settingsJson(const Options& o) {
    json settings = {{"desktop", o.desktop == Desktop::wayland ? "wayland" : "x11"},
                     {"codec", o.encode.codec},
                     {"scale", o.encode.scale},
                     {"fps", o.encode.fps},
                     {"quality", o.encode.quality},
                     {"picture", {pictureWidth(o), pictureHeight(o)}},
                     {"screen", {Rig::kScreenWidth, Rig::kScreenHeight}},
                     {"sceneFps", o.sceneFps}};
    if (o.encode.codec == "h264") {
        settings["kbps"] = streamKbps(o);
    }
    return settings;
}

std::string needStream(const std::string& codec) {
    return json{{"type", "need_stream"}, {"prefer", codec}}.dump();
}

void printRow(const char* name, const Distribution& d) {
    std::printf("  %-22s %8.2f %8.2f %8.2f %8.2f %8.2f   (%zu)\n", name, d.p50, d.p95, d.p99,
                d.mean, d.max, d.count);
}

void printHeader() {
    std::printf("  %-22s %8s %8s %8s %8s %8s   (n)   ms\n", "", "p50", "p95", "p99", "mean", "max");
}

void printStreamLines(const Rig& rig) {
    const auto lines = rig.streamLines();
    if (!lines.empty()) {
        std::printf("  extension.log:\n");
        std::istringstream text(lines);
        for (std::string line; std::getline(text, line);) {
            std::printf("    %s\n", line.c_str());
        }
    }
}

// Waits for the extension's relay link; a failure carries extension.log, where the reason is.
template <typename Relay>
void awaitDevice(Rig& rig, Relay& relay, const std::function<bool()>& connected) {
    if (!pumpUntil([&] { return connected() || !rig.extension()->running(); }, 30s) ||
        !connected()) {
        throw HarnessFailure("the extension did not connect to the bench relay; extension.log:\n" +
                             rig.extensionLog());
    }
    if (!relay.complaint().empty()) {
        throw HarnessFailure("the extension's upgrade: " + relay.complaint());
    }
}

void dumpLuma(const std::string& directory, int index, const LumaPlane& plane) {
    if (directory.empty()) {
        return;
    }
    std::filesystem::create_directories(directory);
    const std::string path = directory + "/unreadable-" + std::to_string(index) + ".pgm";
    std::ofstream out(path, std::ios::binary);
    out << "P5\n" << plane.width << " " << plane.height << "\n255\n";
    for (int y = 0; y < plane.height; ++y) {
        out.write(reinterpret_cast<const char*>(plane.data +
                                                static_cast<std::ptrdiff_t>(y) * plane.stride),
                  plane.width);
    }
    std::fprintf(stderr, "unreadable picture saved as %s\n", path.c_str());
}

// ---------------------------------------------------------------------------------------------

json runGlass(const Options& o) {
    const double seconds = o.seconds > 0 ? o.seconds : 30;
    Rig rig(o.programs, o.desktop, o.keepFiles);
    rig.startScene(false, o.sceneFps);
    BenchRelay relay(Rig::kToken);
    rig.pair(relay.baseUrl(), o.encode);

    FrameDecoder decoder;
    bool measuring = false;
    std::uint64_t received = 0;
    std::uint64_t measured = 0;
    std::uint64_t keyFrames = 0;
    std::uint64_t gaps = 0;
    std::uint64_t undecodable = 0;
    std::uint64_t unreadable = 0;
    std::uint64_t otherCodec = 0;
    std::uint64_t payloadBytes = 0;
    std::optional<std::uint32_t> lastSequence;
    std::string lastDecodeError;
    std::vector<double> glass;
    std::vector<double> paintToCapture;
    std::vector<double> captureToReceipt;
    std::vector<double> decoding;
    std::vector<double> captureToDecoded;
    const auto wanted = o.encode.codec == "h264" ? Frame::Codec::h264 : Frame::Codec::jpeg;

    relay.onBinary = [&](std::span<const std::uint8_t> message, std::uint64_t receivedUs) {
        const auto frame = Frame::parse(message);
        if (!frame) {
            return;
        }
        ++received;
        if (lastSequence && frame->sequence != *lastSequence + 1) {
            gaps += measuring ? 1 : 0;
        }
        lastSequence = frame->sequence;
        std::string error;
        const auto luma = decoder.decode(*frame, &error);
        const std::uint64_t decodedUs = realtimeUs();
        if (!measuring) {
            return;
        }
        ++measured;
        payloadBytes += frame->payload.size();
        keyFrames += frame->keyFrame ? 1 : 0;
        if (frame->codec != wanted) {
            ++otherCodec;
        }
        if (!luma) {
            ++undecodable;
            lastDecodeError = error;
            return;
        }
        const auto code = readTimeCode(*luma);
        if (!code) {
            if (unreadable++ < 3) {
                dumpLuma(o.dumpDirectory, static_cast<int>(unreadable), *luma);
            }
            return;
        }
        const std::uint64_t paintedUs = unwrapTimeCode(code->low48, decodedUs);
        const auto ms = [](std::uint64_t later, std::uint64_t earlier) {
            return (static_cast<double>(later) - static_cast<double>(earlier)) / 1000.0;
        };
        glass.push_back(ms(decodedUs, paintedUs));
        paintToCapture.push_back(ms(frame->captureTimeUs, paintedUs));
        captureToReceipt.push_back(ms(receivedUs, frame->captureTimeUs));
        decoding.push_back(ms(decodedUs, receivedUs));
        captureToDecoded.push_back(ms(decodedUs, frame->captureTimeUs));
    };

    const double loadBefore = loadAverage();
    const auto& extension = rig.startExtension();
    awaitDevice(rig, relay, [&] { return relay.connected(); });
    relay.sendText(needStream(o.encode.codec));
    if (!pumpUntil([&] { return received > 0; }, 30s)) {
        throw HarnessFailure("no frame within 30 s of need_stream; extension.log:\n" +
                             rig.extensionLog());
    }
    pumpFor(milliseconds(o.warmupSeconds));
    measuring = true;
    const auto cpu0 = cpuSeconds(extension.pid());
    const auto start = SteadyClock::now();
    pumpFor(milliseconds(seconds));
    measuring = false;
    const auto cpu1 = cpuSeconds(extension.pid());
    const double elapsed = secondsSince(start);
    rig.stopExtension();
    if (!cpu0 || !cpu1) {
        throw HarnessFailure("the extension ended during the measurement");
    }
    // The extension's own processes; the compositor's or X server's share is not in it.
    const double cpuMsPerFrame =
        measured > 0 ? (*cpu1 - *cpu0) * 1000.0 / static_cast<double>(measured) : 0.0;
    const double loadAfter = loadAverage();

    const auto g = summarize(glass);
    const double fps = static_cast<double>(measured) / elapsed;
    std::printf(
        "glass-to-glass: %s; %.0f s after %.0f s of warm-up; load %.2f before, %.2f after\n",
        settingsLine(o).c_str(), elapsed, o.warmupSeconds, loadBefore, loadAfter);
    std::printf(
        "  frames received %llu (%.1f/s), key frames %llu, sequence gaps %llu, %.1f KiB/frame\n",
        static_cast<unsigned long long>(measured), fps, static_cast<unsigned long long>(keyFrames),
        static_cast<unsigned long long>(gaps),
        measured > 0 ? static_cast<double>(payloadBytes) / 1024.0 / static_cast<double>(measured)
                     : 0.0);
    std::printf("  extension CPU %.2f ms per frame (%.1f%% of one core)\n", cpuMsPerFrame,
                (*cpu1 - *cpu0) / elapsed * 100.0);
    std::printf("  time code unreadable %llu, undecodable %llu%s%s, other codec %llu\n",
                static_cast<unsigned long long>(unreadable),
                static_cast<unsigned long long>(undecodable),
                lastDecodeError.empty() ? "" : " — last: ", lastDecodeError.c_str(),
                static_cast<unsigned long long>(otherCodec));
    printHeader();
    printRow("glass-to-glass", g);
    printRow("painted -> captured", summarize(paintToCapture));
    printRow("captured -> received", summarize(captureToReceipt));
    printRow("received -> decoded", summarize(decoding));
    printRow("captured -> decoded", summarize(captureToDecoded));
    printStreamLines(rig);
    std::printf(
        "summary: glass %s scale %.2g: p50 %.1f ms, p95 %.1f ms, p99 %.1f ms, mean %.1f ms; "
        "%.1f fps received; %.2f ms CPU per frame; %llu unreadable\n",
        o.encode.codec.c_str(), o.encode.scale, g.p50, g.p95, g.p99, g.mean, fps, cpuMsPerFrame,
        static_cast<unsigned long long>(unreadable + undecodable));
    return {
        {"seconds", elapsed},
        {"loadBefore", loadBefore},
        {"loadAfter", loadAfter},
        {"frames", measured},
        {"fps", fps},
        {"cpuMsPerFrame", cpuMsPerFrame},
        {"keyFrames", keyFrames},
        {"sequenceGaps", gaps},
        {"unreadable", unreadable},
        {"undecodable", undecodable},
        {"bytesPerFrame",
         measured > 0 ? static_cast<double>(payloadBytes) / static_cast<double>(measured) : 0.0},
        {"glassMs", toJson(g)},
        {"paintedToCapturedMs", toJson(summarize(paintToCapture))},
        {"capturedToReceivedMs", toJson(summarize(captureToReceipt))},
        {"receivedToDecodedMs", toJson(summarize(decoding))},
        {"capturedToDecodedMs", toJson(summarize(captureToDecoded))}};
}

// ---------------------------------------------------------------------------------------------

json runStages(const Options& o) {
    constexpr int kWarmupFrames = 10;
    Rig rig(o.programs, o.desktop, o.keepFiles);
    rig.startScene(false, o.sceneFps);
    auto opened = XcbScreenCapture::open(rig.display().c_str());
    if (const auto* error = std::get_if<CaptureError>(&opened)) {
        throw HarnessFailure("screen capture: " + error->description);
    }
    auto capture = std::move(std::get<std::unique_ptr<ScreenCapture>>(opened));
    LibyuvPictureConverter converter;
    I420Picture picture;
    picture.resize(pictureWidth(o), pictureHeight(o));
    const bool h264 = o.encode.codec == "h264";
    picture.fullRange = !h264;
    TurboJpegCompressor jpeg;
    std::unique_ptr<H264CompressionSession> session;
    if (h264) {
        auto made = X264CompressionSession::open(
            {picture.width, picture.height, static_cast<int>(o.encode.fps), streamKbps(o)});
        if (const auto* error = std::get_if<EncodeError>(&made)) {
            throw HarnessFailure("x264: " + error->description);
        }
        session = std::move(std::get<std::unique_ptr<H264CompressionSession>>(made));
    }
    FrameDecoder decoder;

    std::vector<double> grabMs;
    std::vector<double> convertMs;
    std::vector<double> encodeMs;
    std::vector<double> decodeMs;
    std::vector<double> bytes;
    int unreadable = 0;
    const auto period = std::chrono::duration_cast<SteadyClock::duration>(
        std::chrono::duration<double>(1.0 / static_cast<double>(o.encode.fps)));
    const double loadBefore = loadAverage();
    auto next = SteadyClock::now();
    const auto since = [](SteadyClock::time_point t) {
        return std::chrono::duration<double, std::milli>(SteadyClock::now() - t).count();
    };
    for (int i = 0; i < kWarmupFrames + o.frames; ++i) {
        checkInterrupted();
        // Paced as the stream paces its captures, so that consecutive pictures differ as much
        // as the stream's do.
        next += period;
        std::this_thread::sleep_until(next);
        capture->waitForChange(SteadyClock::now() + 1s);
        auto t = SteadyClock::now();
        auto grabbed = capture->grab();
        const double grab = since(t);
        if (const auto* error = std::get_if<CaptureError>(&grabbed)) {
            throw HarnessFailure("grab: " + error->description);
        }
        const auto& image = std::get<ScreenImage>(grabbed);
        t = SteadyClock::now();
        converter.convert(image, picture);
        const double convert = since(t);
        std::span<const std::uint8_t> payload;
        bool keyFrame = true;
        t = SteadyClock::now();
        if (h264) {
            auto unit = session->encode(picture, static_cast<std::int64_t>(i) * 33'333, i == 0);
            if (const auto* error = std::get_if<EncodeError>(&unit)) {
                throw HarnessFailure("x264: " + error->description);
            }
            payload = std::get<H264AccessUnit>(unit).bytes;
            keyFrame = std::get<H264AccessUnit>(unit).keyFrame;
        } else {
            auto compressed = jpeg.compress(picture, jpegQuality(o));
            if (const auto* error = std::get_if<EncodeError>(&compressed)) {
                throw HarnessFailure("TurboJPEG: " + error->description);
            }
            payload = std::get<std::span<const std::uint8_t>>(compressed);
        }
        const double encode = since(t);
        Frame frame;
        frame.codec = h264 ? Frame::Codec::h264 : Frame::Codec::jpeg;
        frame.keyFrame = keyFrame;
        frame.pictureWidth = picture.width;
        frame.pictureHeight = picture.height;
        frame.screenWidth = image.width;
        frame.screenHeight = image.height;
        frame.payload = payload;
        t = SteadyClock::now();
        std::string error;
        const auto luma = decoder.decode(frame, &error);
        const double decode = since(t);
        if (!luma) {
            throw HarnessFailure("the bench's decoder: " + error);
        }
        if (i < kWarmupFrames) {
            continue;
        }
        if (!readTimeCode(*luma)) {
            if (unreadable++ < 3) {
                dumpLuma(o.dumpDirectory, unreadable, *luma);
            }
        }
        grabMs.push_back(grab);
        convertMs.push_back(convert);
        encodeMs.push_back(encode);
        decodeMs.push_back(decode);
        bytes.push_back(static_cast<double>(payload.size()));
    }
    const double loadAfter = loadAverage();
    const auto grabD = summarize(grabMs);
    const auto convertD = summarize(convertMs);
    const auto encodeD = summarize(encodeMs);
    const auto decodeD = summarize(decodeMs);
    const double sum = grabD.p50 + convertD.p50 + encodeD.p50 + decodeD.p50;
    std::printf("stages: %s; %d frames paced at %lld fps; load %.2f before, %.2f after\n",
                settingsLine(o).c_str(), o.frames, static_cast<long long>(o.encode.fps), loadBefore,
                loadAfter);
    std::printf("  %.1f KiB/frame (median), time code unreadable in %d\n", median(bytes) / 1024.0,
                unreadable);
    printHeader();
    printRow("capture (grab)", grabD);
    printRow("convert + scale", convertD);
    printRow("encode", encodeD);
    printRow("decode (bench)", decodeD);
    std::printf("  %-22s %8.2f   (overhead = glass p50 − this)\n", "sum of p50s", sum);
    std::printf(
        "summary: stages %s scale %.2g: capture %.2f + convert %.2f + encode %.2f + decode %.2f "
        "= %.2f ms (p50s)\n",
        o.encode.codec.c_str(), o.encode.scale, grabD.p50, convertD.p50, encodeD.p50, decodeD.p50,
        sum);
    return {{"frames", o.frames},
            {"loadBefore", loadBefore},
            {"loadAfter", loadAfter},
            {"bytesPerFrameMedian", median(bytes)},
            {"unreadable", unreadable},
            {"captureMs", toJson(grabD)},
            {"convertMs", toJson(convertD)},
            {"encodeMs", toJson(encodeD)},
            {"decodeMs", toJson(decodeD)},
            {"sumOfP50Ms", sum}};
}

// ---------------------------------------------------------------------------------------------

// The mjpeg encoder of ffmpeg has one quantiser table for all planes, MPEG-1's default intra
// matrix times qscale / 8 (DC fixed at 8); libjpeg's quality q scales Annex K's tables by 50/q
// (q < 50) or 2 − q/50. The qscale chosen is the one whose table has the geometric mean closest
// to the libjpeg luma table's at the same quality: the same coarseness where most of the bits go.
int ffmpegQscaleFor(int jpegQuality) {
    static const int luma[64] = {16,  11,  10,  16,  24, 40, 51,  61,  12,  12,  14,  19,  26,
                                 58,  60,  55,  14,  13, 16, 24,  40,  57,  69,  56,  14,  17,
                                 22,  29,  51,  87,  80, 62, 18,  22,  37,  56,  68,  109, 103,
                                 77,  24,  35,  55,  64, 81, 104, 113, 92,  49,  64,  78,  87,
                                 103, 121, 120, 101, 72, 92, 95,  98,  112, 100, 103, 99};
    static const int mpeg[64] = {8,  16, 19, 22, 26, 27, 29, 34, 16, 16, 22, 24, 27, 29, 34, 37,
                                 19, 22, 26, 27, 29, 34, 34, 38, 22, 22, 26, 27, 29, 34, 37, 40,
                                 22, 26, 27, 29, 32, 35, 40, 48, 26, 27, 29, 32, 35, 40, 48, 58,
                                 26, 27, 29, 34, 38, 46, 56, 69, 27, 29, 35, 38, 46, 56, 69, 83};
    const double scaling = jpegQuality < 50 ? 5000.0 / jpegQuality : 200.0 - 2.0 * jpegQuality;
    double target = 0;
    for (const int value : luma) {
        target += std::log(std::clamp(std::floor((value * scaling + 50) / 100), 1.0, 255.0));
    }
    target /= 64;
    int best = 2;
    double bestDistance = INFINITY;
    for (int q = 1; q <= 31; ++q) {
        double mean = std::log(8.0);
        for (int i = 1; i < 64; ++i) {
            mean += std::log(std::max(1.0, std::floor((mpeg[i] * q + 4) / 8.0)));
        }
        mean /= 64;
        if (std::abs(mean - target) < bestDistance) {
            bestDistance = std::abs(mean - target);
            best = q;
        }
    }
    return best;
}

QStringList ffmpegArguments(const Options& o, const std::string& display) {
    QStringList arguments{QStringLiteral("-hide_banner"),
                          QStringLiteral("-nostdin"),
                          QStringLiteral("-y"),
                          QStringLiteral("-loglevel"),
                          QStringLiteral("error"),
                          QStringLiteral("-nostats"),
                          QStringLiteral("-progress"),
                          QStringLiteral("pipe:1"),
                          QStringLiteral("-stats_period"),
                          QStringLiteral("0.5"),
                          QStringLiteral("-f"),
                          QStringLiteral("x11grab"),
                          QStringLiteral("-framerate"),
                          QString::number(o.encode.fps),
                          QStringLiteral("-video_size"),
                          QStringLiteral("%1x%2").arg(Rig::kScreenWidth).arg(Rig::kScreenHeight),
                          QStringLiteral("-draw_mouse"),
                          QStringLiteral("1"),
                          QStringLiteral("-i"),
                          QString::fromStdString(display)};
    if (pictureWidth(o) != Rig::kScreenWidth || pictureHeight(o) != Rig::kScreenHeight) {
        // Area averaging: swscale's counterpart of libyuv's box filter.
        arguments
            << QStringLiteral("-vf")
            << QStringLiteral("scale=%1:%2:flags=area").arg(pictureWidth(o)).arg(pictureHeight(o));
    }
    if (o.encode.codec == "h264") {
        const int kbps = streamKbps(o);
        arguments << QStringLiteral("-pix_fmt") << QStringLiteral("yuv420p")
                  << QStringLiteral("-c:v") << QStringLiteral("libx264")
                  << QStringLiteral("-preset") << QStringLiteral("ultrafast")
                  << QStringLiteral("-tune") << QStringLiteral("zerolatency")
                  << QStringLiteral("-profile:v") << QStringLiteral("baseline")
                  << QStringLiteral("-threads") << QStringLiteral("1") << QStringLiteral("-b:v")
                  << QStringLiteral("%1k").arg(kbps) << QStringLiteral("-maxrate")
                  << QStringLiteral("%1k").arg(kbps) << QStringLiteral("-bufsize")
                  << QStringLiteral("%1k").arg(std::max(1, kbps / 2))
                  << QStringLiteral("-x264-params") << QStringLiteral("keyint=infinite:scenecut=0")
                  << QStringLiteral("-f") << QStringLiteral("h264");
    } else {
        arguments << QStringLiteral("-pix_fmt") << QStringLiteral("yuvj420p")
                  << QStringLiteral("-c:v") << QStringLiteral("mjpeg") << QStringLiteral("-q:v")
                  << QString::number(ffmpegQscaleFor(jpegQuality(o))) << QStringLiteral("-huffman")
                  << QStringLiteral("default") << QStringLiteral("-threads") << QStringLiteral("1")
                  << QStringLiteral("-f") << QStringLiteral("mjpeg");
    }
    // A raw muxer to nowhere rather than the null one, so that progress reports the bytes made.
    arguments << QStringLiteral("/dev/null");
    return arguments;
}

struct CpuRun {
    double msPerFrame = NAN;
    double fps = NAN;
    double bytesPerFrame = NAN;
    std::uint64_t frames = 0;
    double seconds = 0;
};

CpuRun measureExtension(const Options& o, Rig& rig, BenchRelay& relay, double seconds) {
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;
    relay.onBinary = [&](std::span<const std::uint8_t> message, std::uint64_t) {
        ++frames;
        bytes += message.size() - std::min(message.size(), Frame::kHeaderSize);
    };
    const int before = relay.connections();
    auto& extension = rig.startExtension();
    awaitDevice(rig, relay, [&] { return relay.connections() > before && relay.connected(); });
    relay.sendText(needStream(o.encode.codec));
    if (!pumpUntil([&] { return frames > 0; }, 30s)) {
        throw HarnessFailure("no frame within 30 s of need_stream; extension.log:\n" +
                             rig.extensionLog());
    }
    pumpFor(milliseconds(o.warmupSeconds));
    const auto cpu0 = cpuSeconds(extension.pid());
    const auto frames0 = frames;
    const auto bytes0 = bytes;
    const auto start = SteadyClock::now();
    pumpFor(milliseconds(seconds));
    const auto cpu1 = cpuSeconds(extension.pid());
    CpuRun run;
    run.seconds = secondsSince(start);
    run.frames = frames - frames0;
    rig.stopExtension();
    relay.onBinary = nullptr;
    if (!cpu0 || !cpu1) {
        throw HarnessFailure("the extension ended during the measurement; extension.log:\n" +
                             rig.extensionLog());
    }
    if (run.frames > 0) {
        run.msPerFrame = (*cpu1 - *cpu0) * 1000.0 / static_cast<double>(run.frames);
        run.bytesPerFrame = static_cast<double>(bytes - bytes0) / static_cast<double>(run.frames);
    }
    run.fps = static_cast<double>(run.frames) / run.seconds;
    return run;
}

// What a rival program has made so far.
struct Progress {
    std::uint64_t frames = 0;
    std::uint64_t bytes = 0;
};

// Reads what the rival wrote to its standard output into `made`; true when that completes a
// report worth timing.
using ProgressReader = std::function<bool(QProcess& process, Progress& made)>;

// ffmpeg's -progress blocks, each closed by a progress= line.
bool readFfmpegProgress(QProcess& process, Progress& made) {
    bool complete = false;
    while (process.canReadLine()) {
        const QByteArray line = process.readLine().trimmed();
        if (line.startsWith("frame=")) {
            made.frames = line.mid(6).toULongLong();
        } else if (line.startsWith("total_size=")) {
            made.bytes = line.mid(11).toULongLong();
        } else if (line.startsWith("progress=")) {
            complete = true;
        }
    }
    return complete;
}

// An H.264 byte stream, a frame for each picture's first slice: a coded slice NAL unit (type 1
// or 5) whose first_mb_in_slice, the first field, is 0 (coded as a single 1 bit). A start code
// split between two reads is found in the bytes kept from the first.
ProgressReader pictureCounter() {
    return [kept = QByteArray()](QProcess& process, Progress& made) mutable {
        static const QByteArray kStartCode("\x00\x00\x01", 3);
        const QByteArray data = process.readAllStandardOutput();
        made.bytes += static_cast<std::uint64_t>(data.size());
        const QByteArray scanned = kept + data;
        qsizetype at = scanned.indexOf(kStartCode);
        for (; at >= 0 && at + 4 < scanned.size(); at = scanned.indexOf(kStartCode, at + 1)) {
            const auto type = static_cast<std::uint8_t>(scanned[at + 3]) & 0x1fU;
            const bool firstSlice = (static_cast<std::uint8_t>(scanned[at + 4]) & 0x80U) != 0;
            made.frames += (type == 1 || type == 5) && firstSlice ? 1 : 0;
        }
        // A start code whose NAL header has not come yet is read again with what follows.
        kept = at >= 0 ? scanned.mid(at) : scanned.right(kStartCode.size() - 1);
        return !data.isEmpty();
    };
}

// The program the extension is measured against, doing the same work.
struct Rival {
    QString name;
    QString program;
    QStringList arguments;
    std::function<ProgressReader()> reader;
};

CpuRun measureRival(const Options& o, Rig& rig, double seconds, const Rival& rival) {
    struct Report {
        Progress made;
        double cpu = 0;
        SteadyClock::time_point at;
    };
    const QString errors = rig.directory() + QStringLiteral("/%1.stderr").arg(rival.name);
    QFile::remove(errors);
    Child child(rival.program, rival.arguments, {}, Child::Output{errors, true});
    std::vector<Report> reports;
    Progress made;
    auto read = rival.reader();
    auto& process = child.process();
    QObject::connect(&process, &QProcess::readyReadStandardOutput, &process, [&] {
        // Read at once, so that the CPU time and the frame count belong together.
        if (read(process, made)) {
            if (const auto cpu = cpuSeconds(child.pid())) {
                reports.push_back({made, *cpu, SteadyClock::now()});
            }
        }
    });
    const auto failed = [&](const std::string& what) {
        QFile text(errors);
        text.open(QIODevice::ReadOnly);
        return HarnessFailure(rival.name.toStdString() + " " + what + ": " +
                              text.readAll().toStdString());
    };
    if (!pumpUntil(
            [&] {
                return (!reports.empty() && reports.back().made.frames > 0) || !child.running();
            },
            30s) ||
        !child.running()) {
        throw failed("made no frame within 30 s");
    }
    pumpFor(milliseconds(o.warmupSeconds));
    std::size_t seen = reports.size();
    if (!pumpUntil([&] { return reports.size() > seen || !child.running(); }, 10s)) {
        throw failed("stopped reporting progress");
    }
    const Report first = reports.back();
    pumpFor(milliseconds(seconds));
    seen = reports.size();
    if (!pumpUntil([&] { return reports.size() > seen || !child.running(); }, 10s) ||
        !child.running()) {
        throw failed("stopped during the measurement");
    }
    const Report last = reports.back();
    child.stop();
    CpuRun run;
    run.frames = last.made.frames - first.made.frames;
    run.seconds = std::chrono::duration<double>(last.at - first.at).count();
    if (run.frames > 0) {
        run.msPerFrame = (last.cpu - first.cpu) * 1000.0 / static_cast<double>(run.frames);
        run.bytesPerFrame = static_cast<double>(last.made.bytes - first.made.bytes) /
                            static_cast<double>(run.frames);
    }
    run.fps = static_cast<double>(run.frames) / run.seconds;
    return run;
}

// GStreamer reading a screen cast of GNOME's over PipeWire, copying each picture out of its
// buffer, scaling, converting and encoding with libx264 as the extension does: the same preset,
// bit rate, buffer, threads and profile, no key frame but the first, each frame written as soon
// as it is made. It encodes every picture the compositor delivers, so compare per frame.
QStringList gstreamerArguments(const Options& o, std::uint32_t node) {
    // The stream's VBV buffer holds half a second of its bit rate.
    return QStringLiteral(
               "-q pipewiresrc path=%1 always-copy=true ! videoconvertscale ! "
               "video/x-raw,format=I420,width=%2,height=%3 ! x264enc speed-preset=ultrafast "
               "tune=zerolatency bitrate=%4 vbv-buf-capacity=500 threads=%5 sliced-threads=true "
               "key-int-max=2147483647 option-string=scenecut=0 ! "
               "video/x-h264,profile=constrained-baseline,stream-format=byte-stream ! fdsink fd=1 "
               "sync=false")
        .arg(node)
        .arg(pictureWidth(o))
        .arg(pictureHeight(o))
        .arg(streamKbps(o))
        .arg(X264CompressionSession::kThreads)
        .split(QLatin1Char(' '));
}

json runCpu(const Options& o) {
    const double seconds = o.seconds > 0 ? o.seconds : 20;
    Rig rig(o.programs, o.desktop, o.keepFiles);
    rig.startScene(false, o.sceneFps);
    BenchRelay relay(Rig::kToken);
    rig.pair(relay.baseUrl(), o.encode);
    // On Wayland the rival reads a screen cast of the bench's own, held open for the whole run.
    std::variant<GnomeScreenCastNode, std::string> cast = std::string();
    Rival rival;
    if (o.desktop == Desktop::wayland) {
        if (o.encode.codec != "h264") {
            throw HarnessFailure("--mode cpu on Wayland compares H.264 (--codec h264)");
        }
        cast = openGnomeScreenCastNode();
        if (const auto* error = std::get_if<std::string>(&cast)) {
            throw HarnessFailure(*error);
        }
        rival = {QStringLiteral("gstreamer"), o.gstreamer,
                 gstreamerArguments(o, std::get<GnomeScreenCastNode>(cast).node), pictureCounter};
    } else {
        rival = {QStringLiteral("ffmpeg"), o.ffmpeg, ffmpegArguments(o, rig.display()),
                 [] { return ProgressReader(readFfmpegProgress); }};
    }
    const std::string name = rival.name.toStdString();
    std::printf("cpu per frame: %s; %d pairs of %.0f s after %.0f s of warm-up\n",
                settingsLine(o).c_str(), o.pairs, seconds, o.warmupSeconds);
    std::printf("  %s %s\n", qPrintable(rival.program), qPrintable(rival.arguments.join(' ')));
    if (o.encode.codec != "h264") {
        std::printf(
            "  (quality %d -> -q:v %d: the mjpeg table nearest libjpeg's luma table at that "
            "quality)\n",
            jpegQuality(o), ffmpegQscaleFor(jpegQuality(o)));
    }
    std::printf("  %-5s %6s | %10s %7s %9s | %10s %7s %9s | %6s\n", "pair", "load", "ours ms/f",
                "fps", "KiB/f", (name + " ms/f").c_str(), "fps", "KiB/f", "ratio");
    json pairs = json::array();
    std::vector<double> ratios;
    for (int pair = 1; pair <= o.pairs; ++pair) {
        const double load = loadAverage();
        const auto ours = measureExtension(o, rig, relay, seconds);
        const auto theirs = measureRival(o, rig, seconds, rival);
        const double ratio = ours.msPerFrame / theirs.msPerFrame;
        ratios.push_back(ratio);
        std::printf("  %-5d %6.2f | %10.2f %7.1f %9.1f | %10.2f %7.1f %9.1f | %5.2fx\n", pair, load,
                    ours.msPerFrame, ours.fps, ours.bytesPerFrame / 1024, theirs.msPerFrame,
                    theirs.fps, theirs.bytesPerFrame / 1024, ratio);
        std::fflush(stdout);
        const auto side = [](const CpuRun& run) {
            return json{{"msPerFrame", run.msPerFrame},
                        {"fps", run.fps},
                        {"frames", run.frames},
                        {"seconds", run.seconds},
                        {"bytesPerFrame", run.bytesPerFrame}};
        };
        pairs.push_back(
            {{"load", load}, {"ours", side(ours)}, {name, side(theirs)}, {"ratio", ratio}});
    }
    const double medianRatio = median(ratios);
    printStreamLines(rig);
    std::printf("summary: cpu %s scale %.2g: median ratio ours/%s %.2fx over %d pairs\n",
                o.encode.codec.c_str(), o.encode.scale, name.c_str(), medianRatio, o.pairs);
    return {{"pairs", pairs},
            {"medianRatio", medianRatio},
            {name + "Arguments", rival.arguments.join(' ').toStdString()}};
}

// ---------------------------------------------------------------------------------------------

// Painted -> arrived: GNOME's screen cast read in this process, each picture's time code read as
// it arrives. The compositor's part of glass to glass, with nothing of the stream in it.
json runArrival(const Options& o) {
    if (o.desktop != Desktop::wayland) {
        throw HarnessFailure("--mode arrival measures the Wayland desktop (--desktop wayland)");
    }
    const double seconds = o.seconds > 0 ? o.seconds : 20;
    Rig rig(o.programs, o.desktop, o.keepFiles);
    rig.startScene(false, o.sceneFps);
    auto opened = openGnomeScreenCast();
    if (const auto* error = std::get_if<std::string>(&opened)) {
        throw HarnessFailure(*error);
    }
    auto capture = std::move(std::get<std::unique_ptr<ScreenCapture>>(opened));

    std::vector<double> arrivedMs;
    std::vector<std::uint8_t> luma;
    int unreadable = 0;
    const double loadBefore = loadAverage();
    const auto end = SteadyClock::now() + milliseconds(seconds);
    while (SteadyClock::now() < end) {
        checkInterrupted();
        if (!capture->waitForChange(SteadyClock::now() + 1s)) {
            continue;
        }
        const std::uint64_t arrivedUs = realtimeUs();
        auto grabbed = capture->grab();
        if (const auto* error = std::get_if<CaptureError>(&grabbed)) {
            throw HarnessFailure("grab: " + error->description);
        }
        const auto& image = std::get<ScreenImage>(grabbed);
        luma.resize(static_cast<std::size_t>(image.width) * static_cast<std::size_t>(image.height));
        for (int y = 0; y < image.height; ++y) {
            const std::uint8_t* row = image.pixels + static_cast<std::ptrdiff_t>(y) * image.stride;
            for (int x = 0; x < image.width; ++x) {
                const std::uint8_t* pixel = row + x * 4;  // B, G, R, x
                luma[static_cast<std::size_t>(y) * static_cast<std::size_t>(image.width) +
                     static_cast<std::size_t>(x)] =
                    static_cast<std::uint8_t>((pixel[0] * 29 + pixel[1] * 150 + pixel[2] * 77) >>
                                              8);
            }
        }
        const LumaPlane plane{luma.data(),  image.width, image.width,
                              image.height, image.width, image.height};
        const auto code = readTimeCode(plane);
        if (!code) {
            ++unreadable;
            continue;
        }
        const auto paintedUs = unwrapTimeCode(code->low48, arrivedUs);
        arrivedMs.push_back((static_cast<double>(arrivedUs) - static_cast<double>(paintedUs)) /
                            1000.0);
    }
    const double loadAfter = loadAverage();
    const auto arrived = summarize(arrivedMs);
    std::printf(
        "arrival: GNOME's screen cast read in process, scene at %.0f Hz, %.0f s; load %.2f "
        "before, %.2f after; time code unreadable in %d\n",
        o.sceneFps, seconds, loadBefore, loadAfter, unreadable);
    printHeader();
    printRow("painted -> arrived", arrived);
    std::printf("summary: arrival p50 %.1f ms, p95 %.1f ms, %zu pictures\n", arrived.p50,
                arrived.p95, arrivedMs.size());
    return {{"seconds", seconds},       {"loadBefore", loadBefore},
            {"loadAfter", loadAfter},   {"pictures", arrivedMs.size()},
            {"unreadable", unreadable}, {"paintedToArrivedMs", toJson(arrived)}};
}

// ---------------------------------------------------------------------------------------------

json runProbes(const Options& o) {
    const double seconds = o.seconds > 0 ? o.seconds : 10;
    Rig rig(o.programs, o.desktop, o.keepFiles);
    rig.startScene(false, o.sceneFps);
    BenchRelay relay(Rig::kToken);
    rig.pair(relay.baseUrl(), o.encode);

    std::int64_t sent = 0;
    bool awaiting = false;
    SteadyClock::time_point sentAt;
    std::vector<double>* samples = nullptr;
    std::uint64_t frames = 0;
    std::optional<Frame::Codec> lastCodec;
    relay.onBinary = [&](std::span<const std::uint8_t> message, std::uint64_t) {
        ++frames;
        if (const auto frame = Frame::parse(message)) {
            lastCodec = frame->codec;
        }
    };
    const auto probe = [&] {
        ++sent;
        awaiting = true;
        sentAt = SteadyClock::now();
        relay.sendText(R"({"type":"latency_ping","t":)" + std::to_string(sent) +
                       R"(,"viewerId":"bench"})");
    };
    relay.onText = [&](const QString& text) {
        const auto elapsed = SteadyClock::now() - sentAt;
        const auto pong = json::parse(text.toStdString(), nullptr, false);
        if (!awaiting || !pong.is_object() || pong.value("type", "") != "latency_pong" ||
            pong.value("t", std::int64_t{-1}) != sent) {
            return;
        }
        awaiting = false;
        if (samples != nullptr) {
            samples->push_back(std::chrono::duration<double, std::micro>(elapsed).count());
        }
    };

    rig.startExtension();
    awaitDevice(rig, relay, [&] { return relay.connected(); });

    struct Phase {
        std::string name;
        std::vector<double> roundTrips;
        double fps = 0;
        double load = 0;
    };
    std::vector<Phase> phases;
    const auto measure = [&](const std::string& name) {
        Phase phase{name, {}, 0, loadAverage()};
        // Untimed probes first, as the round-trip bench does.
        samples = nullptr;
        const auto framesBefore = frames;
        const auto start = SteadyClock::now();
        const auto warm = start + 1s;
        bool timed = false;
        const auto end = warm + milliseconds(seconds);
        while (SteadyClock::now() < end) {
            if (!timed && SteadyClock::now() >= warm) {
                samples = &phase.roundTrips;
                timed = true;
            }
            probe();
            if (!pumpUntil([&] { return !awaiting; }, 10s)) {
                throw HarnessFailure("a latency probe went unanswered for 10 s; extension.log:\n" +
                                     rig.extensionLog());
            }
            if (o.probeGapMs > 0) {
                pumpFor(std::chrono::milliseconds(static_cast<long long>(o.probeGapMs)));
            }
        }
        samples = nullptr;
        phase.fps = static_cast<double>(frames - framesBefore) / secondsSince(start);
        phases.push_back(std::move(phase));
    };
    const auto streamIn = [&](const std::string& codec) {
        const auto wanted = codec == "h264" ? Frame::Codec::h264 : Frame::Codec::jpeg;
        relay.sendText(needStream(codec));
        if (!pumpUntil([&] { return lastCodec == wanted; }, 30s)) {
            throw HarnessFailure("no " + codec + " frame within 30 s; extension.log:\n" +
                                 rig.extensionLog());
        }
        pumpFor(milliseconds(o.warmupSeconds));
    };

    measure("no stream");
    streamIn("h264");
    measure("h264 stream");
    streamIn("jpeg");
    measure("jpeg stream");
    rig.stopExtension();

    std::printf(
        "latency probes: one at a time%s; %.0f s per phase after 1 s of untimed probes; "
        "stream at scale %.2g (%dx%d), %lld fps, quality %.2g\n",
        o.probeGapMs > 0 ? (", " + std::to_string(o.probeGapMs) + " ms apart").c_str()
                         : " back to back",
        seconds, o.encode.scale, pictureWidth(o), pictureHeight(o),
        static_cast<long long>(o.encode.fps), o.encode.quality);
    std::printf("  %-12s %6s %9s %10s %10s %10s %8s %8s\n", "phase", "load", "probes", "p50 us",
                "p99 us", "mean us", "p50 x", "p99 x");
    const auto base = summarize(phases.front().roundTrips);
    json out = json::array();
    for (const auto& phase : phases) {
        const auto d = summarize(phase.roundTrips);
        std::printf("  %-12s %6.2f %9zu %10.1f %10.1f %10.1f %7.2fx %7.2fx   (%.1f frames/s)\n",
                    phase.name.c_str(), phase.load, d.count, d.p50, d.p99, d.mean, d.p50 / base.p50,
                    d.p99 / base.p99, phase.fps);
        out.push_back({{"phase", phase.name},
                       {"load", phase.load},
                       {"roundTripUs", toJson(d)},
                       {"p50Ratio", d.p50 / base.p50},
                       {"p99Ratio", d.p99 / base.p99},
                       {"framesPerSecond", phase.fps}});
    }
    printStreamLines(rig);
    const auto h = summarize(phases[1].roundTrips);
    const auto j = summarize(phases[2].roundTrips);
    std::printf(
        "summary: probes: no stream p50 %.0f us p99 %.0f us; h264 stream p50 %.2fx p99 %.2fx; "
        "jpeg stream p50 %.2fx p99 %.2fx\n",
        base.p50, base.p99, h.p50 / base.p50, h.p99 / base.p99, j.p50 / base.p50, j.p99 / base.p99);
    return {{"phases", out}};
}

// ---------------------------------------------------------------------------------------------

json runStill(const Options& o) {
    const double seconds = o.seconds > 0 ? o.seconds : 30;
    Rig rig(o.programs, o.desktop, o.keepFiles);
    rig.startScene(true, o.sceneFps);
    BenchRelay relay(Rig::kToken);
    rig.pair(relay.baseUrl(), o.encode);
    std::uint64_t frames = 0;
    relay.onBinary = [&](std::span<const std::uint8_t>, std::uint64_t) { ++frames; };
    const double loadBefore = loadAverage();
    auto& extension = rig.startExtension();
    awaitDevice(rig, relay, [&] { return relay.connected(); });
    relay.sendText(needStream(o.encode.codec));
    if (!pumpUntil([&] { return frames > 0; }, 30s)) {
        throw HarnessFailure("no frame within 30 s of need_stream; extension.log:\n" +
                             rig.extensionLog());
    }
    pumpFor(1s);
    const auto cpu0 = cpuSeconds(extension.pid());
    const auto frames0 = frames;
    const auto start = SteadyClock::now();
    pumpFor(milliseconds(seconds));
    const auto cpu1 = cpuSeconds(extension.pid());
    const double elapsed = secondsSince(start);
    const auto period = frames - frames0;
    rig.stopExtension();
    const double loadAfter = loadAverage();
    if (!cpu0 || !cpu1) {
        throw HarnessFailure("the extension ended during the measurement");
    }
    const double percent = (*cpu1 - *cpu0) / elapsed * 100.0;
    std::printf(
        "still screen: %s; %.0f s from 1 s after the first frame; load %.2f before, "
        "%.2f after\n",
        settingsLine(o).c_str(), elapsed, loadBefore, loadAfter);
    std::printf(
        "  extension CPU %.2f s = %.2f%% of one core; frames sent in the period %llu "
        "(%llu in all)\n",
        *cpu1 - *cpu0, percent, static_cast<unsigned long long>(period),
        static_cast<unsigned long long>(frames));
    printStreamLines(rig);
    std::printf("summary: still %s: %.2f%% of one core, %llu frames in %.0f s\n",
                o.encode.codec.c_str(), percent, static_cast<unsigned long long>(period), elapsed);
    return {{"seconds", elapsed},          {"loadBefore", loadBefore},
            {"loadAfter", loadAfter},      {"cpuPercentOfOneCore", percent},
            {"cpuSeconds", *cpu1 - *cpu0}, {"framesInPeriod", period},
            {"framesInAll", frames}};
}

// ---------------------------------------------------------------------------------------------

json runMemory(const Options& o) {
    const double totalSeconds = o.minutes * 60;
    Rig rig(o.programs, o.desktop, o.keepFiles);
    rig.startScene(false, o.sceneFps);
    ThrottledRelay relay(Rig::kToken, o.pace, needStream(o.encode.codec));
    rig.pair(relay.baseUrl(), o.encode);
    const double loadBefore = loadAverage();
    auto& extension = rig.startExtension();
    awaitDevice(rig, relay, [&] { return relay.counts().connections > 0; });
    std::printf(
        "memory under a slow relay: %s; the relay reads ≤ %.0f KiB/s and nothing for the "
        "last %d s of every %d s; VmRSS every %d s for %.1f min; load %.2f\n",
        settingsLine(o).c_str(), o.pace.readKiBps, o.pace.stallSeconds, o.pace.cycleSeconds,
        o.sampleSeconds, o.minutes, loadBefore);
    std::printf("  %7s %12s %12s %12s %6s\n", "t s", "VmRSS KiB", "frames read", "MiB read",
                "links");
    struct Sample {
        double t;
        long kib;
    };
    std::vector<Sample> samples;
    json rows = json::array();
    const auto start = SteadyClock::now();
    for (int i = 0;; ++i) {
        const double t = static_cast<double>(i) * o.sampleSeconds;
        if (t > totalSeconds + 0.001) {
            break;
        }
        pumpUntil([] { return false; }, std::chrono::duration_cast<std::chrono::milliseconds>(
                                            start + milliseconds(t) - SteadyClock::now()));
        const auto kib = residentKiB(extension.pid());
        if (!kib || !extension.running()) {
            throw HarnessFailure("the extension ended; extension.log:\n" + rig.extensionLog());
        }
        const auto& counts = relay.counts();
        samples.push_back({t, *kib});
        std::printf("  %7.0f %12ld %12llu %12.1f %6d\n", t, *kib,
                    static_cast<unsigned long long>(counts.binaryMessages),
                    static_cast<double>(counts.bytesRead) / 1048576.0, counts.connections);
        std::fflush(stdout);
        rows.push_back({{"t", t},
                        {"vmRssKiB", *kib},
                        {"framesRead", counts.binaryMessages},
                        {"bytesRead", counts.bytesRead},
                        {"connections", counts.connections}});
    }
    rig.stopExtension();
    // The second minute against the last one; shorter runs compare their second and last
    // quarters instead.
    const double window = totalSeconds >= 180 ? 60 : totalSeconds / 4;
    const auto meanIn = [&](double from, double to) {
        double sum = 0;
        int n = 0;
        for (const auto& s : samples) {
            if (s.t >= from && s.t < to + 0.001) {
                sum += static_cast<double>(s.kib);
                ++n;
            }
        }
        return n > 0 ? sum / n : NAN;
    };
    const double early = meanIn(window, 2 * window);
    const double late = meanIn(totalSeconds - window, totalSeconds);
    printStreamLines(rig);
    std::printf("  mean VmRSS %.0f-%.0f s: %.0f KiB; %.0f-%.0f s: %.0f KiB\n", window, 2 * window,
                early, totalSeconds - window, totalSeconds, late);
    const double readKiBps =
        static_cast<double>(relay.counts().bytesRead) / 1024.0 / secondsSince(start);
    std::printf(
        "summary: memory %s scale %.2g: last window / early window = %.3f (%.0f -> %.0f "
        "KiB) over %.1f min; %llu frames read at %.0f KiB/s on average, %d links\n",
        o.encode.codec.c_str(), o.encode.scale, late / early, early, late, o.minutes,
        static_cast<unsigned long long>(relay.counts().binaryMessages), readKiBps,
        relay.counts().connections);
    return {{"samples", rows},
            {"loadBefore", loadBefore},
            {"earlyWindow", {window, 2 * window}},
            {"lateWindow", {totalSeconds - window, totalSeconds}},
            {"earlyMeanKiB", early},
            {"lateMeanKiB", late},
            {"ratio", late / early},
            {"readKiBpsLimit", o.pace.readKiBps},
            {"readKiBpsAverage", readKiBps},
            {"cycleSeconds", o.pace.cycleSeconds},
            {"stallSeconds", o.pace.stallSeconds}};
}

}  // namespace
}  // namespace velmorand::bench

int main(int argc, char** argv) {
    using namespace velmorand::bench;
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral(
        "The screen stream of velmorand-broadcast, measured end to end on a private X server."));
    parser.addHelpOption();
    const auto option = [&parser](const char* name, const char* description, const char* value,
                                  const char* fallback) {
        QCommandLineOption made(QString::fromLatin1(name), QString::fromUtf8(description),
                                QString::fromLatin1(value), QString::fromLatin1(fallback));
        parser.addOption(made);
        return made;
    };
    const auto mode =
        option("mode", "glass, stages, cpu, probes, still, memory or arrival.", "MODE", "");
    const auto codec = option("codec", "jpeg or h264.", "CODEC", "jpeg");
    const auto scale = option("scale", "Stream scale, 0.1 to 1.0 (probes: 1.0).", "S", "0.5");
    const auto fps = option("fps", "Stream frame rate.", "N", "30");
    const auto quality = option("quality", "Stream quality, 0.1 to 1.0.", "Q", "0.4");
    const auto seconds = option("seconds",
                                "Measured seconds (glass 30, cpu 20 per run, probes 10 "
                                "per phase, still 30).",
                                "N", "0");
    const auto warmup = option("warmup", "Seconds streamed before measuring.", "N", "2");
    const auto pairs = option("pairs", "cpu: runs of each, alternating.", "N", "3");
    const auto minutes = option("minutes", "memory: how long.", "N", "10");
    const auto frames = option("frames", "stages: frames timed.", "N", "300");
    const auto sceneFps = option("scene-fps", "The scene's repaint rate.", "N", "60");
    const auto sample = option("sample-seconds", "memory: seconds between samples.", "N", "10");
    const auto readRate = option("read-kibps", "memory: the relay's reading rate.", "N", "300");
    const auto cycle = option("stall-every", "memory: seconds of a read/stall cycle.", "N", "60");
    const auto stall =
        option("stall-seconds", "memory: seconds of each cycle not read.", "N", "20");
    const auto gap = option("probe-gap-ms", "probes: pause between probes.", "MS", "0");
    const auto jsonFile = option("json", "Also write the results to FILE.", "FILE", "");
    const auto dump = option("dump", "Save unreadable pictures (PGM) in DIR.", "DIR", "");
    const auto ffmpeg = option("ffmpeg", "cpu on X11: the ffmpeg program.", "PATH", "ffmpeg");
    const auto gstreamer = option("gst-launch", "cpu on Wayland: GStreamer's gst-launch program.",
                                  "PATH", "gst-launch-1.0");
    const auto broadcast =
        option("broadcast", "The extension program.", "PATH", VELMORAND_BROADCAST);
    const auto scene = option("scene", "The scene program.", "PATH", VELMORAND_BENCH_SCENE);
    const auto waylandScene = option("wayland-scene", "The scene program on Wayland.", "PATH",
                                     VELMORAND_BENCH_WAYLAND_SCENE);
    const auto desktop = option("desktop",
                                "x11 (a private Xvfb) or wayland (the GNOME session the bench "
                                "runs in; glass, cpu, probes, still, memory and arrival).",
                                "DESKTOP", "x11");
    const auto bundle = option("bundle", "The bundle directory.", "DIR", VELMORAND_DEV_BUNDLE);
    const QCommandLineOption keep(QStringLiteral("keep"),
                                  QStringLiteral("Keep the temporary directory (logs)."));
    parser.addOption(keep);
    parser.process(app);

    Options o;
    o.mode = parser.value(mode).toStdString();
    o.encode.codec = parser.value(codec).toStdString();
    o.encode.scale = parser.value(scale).toDouble();
    if (o.mode == "probes" && !parser.isSet(scale)) {
        o.encode.scale = 1.0;
    }
    o.encode.fps = parser.value(fps).toLongLong();
    o.encode.quality = parser.value(quality).toDouble();
    o.seconds = parser.value(seconds).toDouble();
    o.warmupSeconds = parser.value(warmup).toDouble();
    o.pairs = std::max(1, parser.value(pairs).toInt());
    o.minutes = parser.value(minutes).toDouble();
    o.frames = std::max(1, parser.value(frames).toInt());
    o.sceneFps = parser.value(sceneFps).toDouble();
    o.sampleSeconds = std::max(1, parser.value(sample).toInt());
    o.pace = {parser.value(readRate).toDouble(), parser.value(cycle).toInt(),
              parser.value(stall).toInt()};
    o.probeGapMs = parser.value(gap).toDouble();
    o.jsonPath = parser.value(jsonFile).toStdString();
    o.dumpDirectory = parser.value(dump).toStdString();
    o.ffmpeg = parser.value(ffmpeg);
    o.gstreamer = parser.value(gstreamer);
    o.programs = {parser.value(broadcast), parser.value(scene), parser.value(waylandScene),
                  parser.value(bundle)};
    if (parser.value(desktop) != "x11" && parser.value(desktop) != "wayland") {
        std::fprintf(stderr, "velmorand_bench_stream: --desktop x11|wayland\n");
        return kHarnessFailure;
    }
    o.desktop = parser.value(desktop) == "wayland" ? Desktop::wayland : Desktop::x11;
    o.keepFiles = parser.isSet(keep);
    if ((o.encode.codec != "jpeg" && o.encode.codec != "h264") || !(o.encode.scale >= 0.1) ||
        o.encode.scale > 1.0 || o.encode.fps < 1 || o.encode.fps > 60 ||
        !(o.encode.quality >= 0.1) || o.encode.quality > 1.0) {
        std::fprintf(stderr,
                     "velmorand_bench_stream: --codec jpeg|h264, --scale and --quality "
                     "within 0.1..1.0, --fps within 1..60\n");
        return kHarnessFailure;
    }

    const std::map<std::string, json (*)(const Options&)> modes = {
        {"glass", runGlass}, {"stages", runStages}, {"cpu", runCpu},        {"probes", runProbes},
        {"still", runStill}, {"memory", runMemory}, {"arrival", runArrival}};
    const auto chosen = modes.find(o.mode);
    if (chosen == modes.end()) {
        std::fprintf(stderr,
                     "velmorand_bench_stream: --mode "
                     "glass|stages|cpu|probes|still|memory|arrival\n");
        return kHarnessFailure;
    }
    try {
        installStopSignals();
        json results = chosen->second(o);
        if (!o.jsonPath.empty()) {
            json document = {{"mode", o.mode},
                             {"settings", settingsJson(o)},
                             {"arguments", QCoreApplication::arguments().join(' ').toStdString()},
                             {"finishedUs", realtimeUs()},
                             {"results", results}};
            std::ofstream out(o.jsonPath);
            out << document.dump(2) << "\n";
            if (!out) {
                std::fprintf(stderr, "cannot write %s\n", o.jsonPath.c_str());
                return kHarnessFailure;
            }
        }
        return 0;
    } catch (const Interrupted&) {
        std::fprintf(stderr, "velmorand_bench_stream: stopped by a signal\n");
        return kInterrupted;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "velmorand_bench_stream: %s\n", error.what());
        return kHarnessFailure;
    }
}
