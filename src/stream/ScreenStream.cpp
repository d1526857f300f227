#include "velmorand/stream/ScreenStream.h"

#include <algorithm>
#include <cmath>
#include <utility>
#include <variant>

namespace velmorand {
namespace {

using Clock = FramePacer::Clock;

// Even sides for 4:2:0 sampling, never larger than the screen.
int pictureSide(int screenSide, double scale) {
    const auto scaled = static_cast<int>(std::lround(screenSide * scale));
    return std::max(2, std::min(scaled, screenSide) & ~1);
}

std::uint16_t side16(int side) {
    return static_cast<std::uint16_t>(std::clamp(side, 0, 0xFFFF));
}

std::uint64_t microsecondsSinceEpoch() {
    return static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::microseconds>(
                                          std::chrono::system_clock::now().time_since_epoch())
                                          .count());
}

}  // namespace

ScreenStream::ScreenStream(Services services, Events events, StreamConfig config)
    : services_(std::move(services)), events_(std::move(events)), config_(std::move(config)) {
    pacer_.setFrameRate(config_.encode.fps);
    budget_.setFrameRate(config_.encode.fps);
    thread_ = std::thread([this] { run(); });
}

ScreenStream::~ScreenStream() {
    post([](Requests& requests) { requests.stop = true; });
    thread_.join();
}

void ScreenStream::configure(const StreamConfig& config) {
    post([&config](Requests& requests) { requests.config = config; });
}

void ScreenStream::requestKeyFrame() {
    post([](Requests& requests) { requests.keyFrame = true; });
}

void ScreenStream::setStreaming(bool streaming) {
    post([streaming](Requests& requests) { requests.streaming = streaming; });
}

void ScreenStream::post(const std::function<void(Requests&)>& change) {
    {
        std::lock_guard lock(mutex_);
        change(requests_);
    }
    requested_.notify_one();
    services_.capture->wake();
}

void ScreenStream::run() {
    started_ = Clock::now();
    nextStats_ = started_ + kStatsInterval;
    for (;;) {
        Requests requests;
        {
            std::lock_guard lock(mutex_);
            requests = std::exchange(requests_, {});
        }
        if (!apply(requests)) {
            return;
        }
        if (!streaming_ || waitingForLink_) {
            waitForRequest(std::nullopt);
            continue;
        }
        const auto now = Clock::now();
        if (now >= nextStats_) {
            reportStats(now);
        }
        const auto decision = pacer_.decide(now, changed_, frameWanted_);
        switch (decision.kind) {
            case FramePacer::Decision::Kind::waitForChange:
                changed_ = services_.capture->waitForChange(nextStats_);
                break;
            case FramePacer::Decision::Kind::waitUntil:
                waitForRequest(decision.until);
                break;
            case FramePacer::Decision::Kind::captureNow:
                produceFrame(now);
                break;
        }
    }
}

void ScreenStream::waitForRequest(std::optional<Clock::time_point> until) {
    std::unique_lock lock(mutex_);
    const auto asked = [this] { return requests_.any(); };
    if (until) {
        requested_.wait_until(lock, *until, asked);
    } else {
        requested_.wait(lock, asked);
    }
}

bool ScreenStream::apply(const Requests& requests) {
    if (requests.stop) {
        return false;
    }
    if (requests.config) {
        const auto& next = *requests.config;
        if (next.encode.codec != config_.encode.codec ||
            next.encode.scale != config_.encode.scale) {
            newStream_ = true;
            frameWanted_ = true;
        }
        config_ = next;
        pacer_.setFrameRate(config_.encode.fps);
        budget_.setFrameRate(config_.encode.fps);
        if (streamingH264() && !newStream_) {
            h264_->retune(static_cast<int>(config_.encode.fps),
                          streamBitRateKbps(picture_.width, picture_.height, config_.encode.fps,
                                            config_.encode.quality, config_.bitRateKbps),
                          services_.makeH264);
        }
    }
    const bool resumed = requests.streaming.value_or(false) && !streaming_;
    if (requests.streaming) {
        streaming_ = *requests.streaming;
    }
    if (requests.keyFrame || resumed || (requests.streaming.value_or(false) && waitingForLink_)) {
        frameWanted_ = true;
        waitingForLink_ = false;
        if (streamingH264()) {
            h264_->forceKeyFrame = true;
        }
    }
    if (resumed) {
        window_ = {};
        nextStats_ = Clock::now() + kStatsInterval;
    }
    return true;
}

void ScreenStream::produceFrame(Clock::time_point now) {
    pacer_.captured(now);
    const ScreenSize screen = services_.capture->size();
    if (newStream_ || screen != screen_) {
        if (!startStream(screen)) {
            return;
        }
    }
    const bool keyFrame = !streamingH264() || h264_->forceKeyFrame;
    if (!budget_.hasRoom(services_.sink.bytesInFlight(), keyFrame)) {
        ++window_.dropped;
        return;
    }
    auto grabbed = services_.capture->grab();
    if (const auto* error = std::get_if<CaptureError>(&grabbed)) {
        stopStreaming(error->description);
        return;
    }
    const auto& image = std::get<ScreenImage>(grabbed);
    if (image.width != screen_.width || image.height != screen_.height) {
        // Resized between asking and grabbing: begin again at the new size.
        newStream_ = true;
        frameWanted_ = true;
        return;
    }
    changed_ = false;
    const std::uint64_t captureTimeUs = microsecondsSinceEpoch();
    services_.converter->convert(image, picture_);
    encode(captureTimeUs,
           std::chrono::duration_cast<std::chrono::microseconds>(now - started_).count());
}

bool ScreenStream::startStream(ScreenSize screen) {
    if (screen.width < 2 || screen.height < 2) {
        stopStreaming("the screen has no size");
        return false;
    }
    screen_ = screen;
    picture_.resize(pictureSide(screen.width, config_.encode.scale),
                    pictureSide(screen.height, config_.encode.scale));
    newStream_ = false;
    frameWanted_ = true;
    picture_.fullRange = config_.encode.codec != "h264";
    h264_.reset();
    if (config_.encode.codec == "h264") {
        auto& encoder = h264_.emplace();
        encoder.width = picture_.width;
        encoder.height = picture_.height;
        encoder.frameRate = static_cast<int>(config_.encode.fps);
        encoder.bitRate = streamBitRateKbps(picture_.width, picture_.height, config_.encode.fps,
                                            config_.encode.quality, config_.bitRateKbps);
        encoder.onFatalError = [this](const std::string& description) {
            h264Failure_ = description;
        };
        encoder.start(services_.makeH264);
    }
    if (h264_ && h264_->failed) {
        h264_.reset();
        config_.encode.codec = "jpeg";
        picture_.fullRange = true;
        if (events_.onH264Failed) {
            events_.onH264Failed(h264Failure_);
        }
    }
    if (events_.onNewStream) {
        events_.onNewStream(config_.encode.codec, screen_, {picture_.width, picture_.height});
    }
    return true;
}

void ScreenStream::encode(std::uint64_t captureTimeUs, std::int64_t timestampUs) {
    if (!h264_) {
        const int quality = static_cast<int>(std::lround(config_.encode.quality * 100));
        auto compressed = services_.jpeg->compress(picture_, std::clamp(quality, 1, 100));
        if (const auto* error = std::get_if<EncodeError>(&compressed)) {
            stopStreaming("JPEG compression failed: " + error->description);
            return;
        }
        send(std::get<std::span<const std::uint8_t>>(compressed), true, false, captureTimeUs);
        return;
    }
    h264_->onAccessUnit = [this, captureTimeUs](std::span<const std::uint8_t> unit, bool keyFrame,
                                                bool parameterSets) {
        send(unit, keyFrame, parameterSets, captureTimeUs);
    };
    h264_->encode(picture_, timestampUs);
    if (h264_->failed) {
        // This frame is lost; the next one starts a JPEG stream.
        config_.encode.codec = "jpeg";
        newStream_ = true;
        frameWanted_ = true;
        h264_.reset();
        if (events_.onH264Failed) {
            events_.onH264Failed(h264Failure_);
        }
    }
}

void ScreenStream::send(std::span<const std::uint8_t> payload, bool keyFrame, bool parameterSets,
                        std::uint64_t captureTimeUs) {
    FrameHeader header;
    header.codec = h264_ ? FrameCodec::h264 : FrameCodec::jpeg;
    header.keyFrame = keyFrame;
    header.parameterSets = parameterSets;
    header.captureTimeUs = captureTimeUs;
    header.pictureWidth = side16(picture_.width);
    header.pictureHeight = side16(picture_.height);
    header.screenWidth = side16(screen_.width);
    header.screenHeight = side16(screen_.height);
    switch (services_.sink.send(header, payload, budget_.limit())) {
        case FrameSink::Result::sent:
            ++window_.sent;
            budget_.sent(static_cast<std::int64_t>(FrameHeader::kSize + payload.size()), keyFrame);
            frameWanted_ = false;
            break;
        case FrameSink::Result::overBudget:
            ++window_.dropped;
            frameWanted_ = true;
            if (h264_) {
                // The frames after this one refer to it; the stream must begin afresh.
                h264_->forceKeyFrame = true;
            }
            break;
        case FrameSink::Result::noLink:
            waitingForLink_ = true;
            if (h264_) {
                h264_->forceKeyFrame = true;
            }
            break;
    }
}

void ScreenStream::stopStreaming(const std::string& why) {
    streaming_ = false;
    if (events_.onStopped) {
        events_.onStopped(why);
    }
}

void ScreenStream::reportStats(Clock::time_point now) {
    if (events_.onStats) {
        events_.onStats(window_);
    }
    window_ = {};
    nextStats_ = now + kStatsInterval;
}

}  // namespace velmorand
