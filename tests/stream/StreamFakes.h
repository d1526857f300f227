#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "velmorand/stream/ScreenStream.h"

namespace velmorand::testing {

// A screen the test changes by hand: every pixel has the same blue value, `shade`.
class FakeScreen {
  public:
    void change(std::uint8_t shade) { update(shade_, shade); }
    void resize(ScreenSize size) { update(size_, size); }
    // The size changes between the stream's look at it and its next grab.
    void resizeAtNextGrab(ScreenSize size) { update(resizeAtGrab_, size); }
    void failGrabs(std::string why) {
        std::lock_guard lock(mutex_);
        failure_ = std::move(why);
    }
    int grabs() const {
        std::lock_guard lock(mutex_);
        return grabs_;
    }

    // Owned by the stream; the screen outlives it.
    std::unique_ptr<ScreenCapture> capture() { return std::make_unique<Capture>(*this); }

  private:
    template <typename Field, typename Value>
    void update(Field& field, Value value) {
        {
            std::lock_guard lock(mutex_);
            field = value;
            changed_ = true;
        }
        changedOrWoken_.notify_all();
    }

    struct Capture : ScreenCapture {
        explicit Capture(FakeScreen& screen) : screen(screen) {}
        bool waitForChange(Clock::time_point deadline) override {
            std::unique_lock lock(screen.mutex_);
            screen.changedOrWoken_.wait_until(lock, deadline,
                                              [this] { return screen.changed_ || screen.woken_; });
            screen.woken_ = false;
            return screen.changed_;
        }
        void wake() override {
            {
                std::lock_guard lock(screen.mutex_);
                screen.woken_ = true;
            }
            screen.changedOrWoken_.notify_all();
        }
        ScreenSize size() override {
            std::lock_guard lock(screen.mutex_);
            return screen.size_;
        }
        std::variant<ScreenImage, CaptureError> grab() override {
            std::lock_guard lock(screen.mutex_);
            if (screen.failure_) {
                return CaptureError{*screen.failure_};
            }
            ++screen.grabs_;
            screen.changed_ = false;
            screen.size_ = screen.resizeAtGrab_.value_or(screen.size_);
            screen.resizeAtGrab_.reset();
            const auto& [width, height] = screen.size_;
            pixels.assign(static_cast<std::size_t>(width) * height * 4, 0);
            for (std::size_t i = 0; i < pixels.size(); i += 4) {
                pixels[i] = screen.shade_;
            }
            return ScreenImage{pixels.data(), width, height, width * 4};
        }
        FakeScreen& screen;
        std::vector<std::uint8_t> pixels;
    };

    mutable std::mutex mutex_;
    std::condition_variable changedOrWoken_;
    ScreenSize size_{64, 48};
    std::optional<ScreenSize> resizeAtGrab_;
    std::uint8_t shade_ = 0;
    bool changed_ = true;
    bool woken_ = false;
    int grabs_ = 0;
    std::optional<std::string> failure_;
};

// Stands for scaling: Y takes the image's first blue byte, so payloads tell frames apart.
struct FakeConverter : PictureConverter {
    void convert(const ScreenImage& image, I420Picture& picture) override {
        std::fill(picture.y.begin(), picture.y.end(), image.pixels[0]);
    }
};

struct FakeJpeg : JpegCompressor {
    std::variant<std::span<const std::uint8_t>, EncodeError> compress(const I420Picture& picture,
                                                                      int quality) override {
        if (failure) {
            return EncodeError{*failure};
        }
        bytes = {0xFF, 0xD8, picture.y.at(0), static_cast<std::uint8_t>(quality), 0xFF, 0xD9};
        return std::span<const std::uint8_t>(bytes);
    }
    std::vector<std::uint8_t> bytes;
    std::optional<std::string> failure;
};

// Annex B units: SPS 67 42, PPS 68 CE, then IDR 65 or P slice 41 and the picture's Y value. The
// first unit always carries the parameter sets; later key frames only when they are repeated.
struct FakeH264Session : H264CompressionSession {
    struct Script {
        bool repeatParameterSets = true;
        // A broken session's key frames: the SPS without its PPS.
        bool withoutPps = false;
        std::optional<int> failAtCall;
        bool retunes = true;
        std::vector<H264SessionSettings> opened;
        std::vector<std::pair<int, int>> retuned;
    };
    explicit FakeH264Session(Script& script) : script(script) {}

    std::variant<H264AccessUnit, EncodeError> encode(const I420Picture& picture, std::int64_t,
                                                     bool keyFrame) override {
        if (script.failAtCall && calls++ == *script.failAtCall) {
            return EncodeError{"scripted failure"};
        }
        const std::uint8_t y = picture.y.at(0);
        bytes.clear();
        const auto nal = [this](std::uint8_t header, std::uint8_t body) {
            bytes.insert(bytes.end(), {0, 0, 0, 1, header, body});
        };
        keyFrame = keyFrame || first;
        if (keyFrame && (script.repeatParameterSets || first)) {
            nal(0x67, 0x42);
            if (!script.withoutPps) {
                nal(0x68, 0xCE);
            }
        }
        nal(keyFrame ? 0x65 : 0x41, y);
        first = false;
        return H264AccessUnit{bytes, keyFrame};
    }
    bool retune(int frameRate, int bitRateKbps) override {
        script.retuned.emplace_back(frameRate, bitRateKbps);
        return script.retunes;
    }

    static H264SessionFactory factory(Script& script) {
        return [&script](const H264SessionSettings& settings)
                   -> std::variant<std::unique_ptr<H264CompressionSession>, EncodeError> {
            script.opened.push_back(settings);
            return std::make_unique<FakeH264Session>(script);
        };
    }

    Script& script;
    std::vector<std::uint8_t> bytes;
    bool first = true;
    int calls = 0;
};

// Records what it is given; answers with `result`, counting what it refuses.
class FakeSink : public FrameSink {
  public:
    struct Frame {
        FrameHeader header;
        std::vector<std::uint8_t> payload;
    };

    Result send(const FrameHeader& header, std::span<const std::uint8_t> payload,
                std::int64_t) override {
        std::lock_guard lock(mutex_);
        const Result answer = result;
        if (answer == Result::sent) {
            frames_.push_back({header, {payload.begin(), payload.end()}});
        } else {
            ++refusals;
        }
        arrived_.notify_all();
        return answer;
    }
    std::int64_t bytesInFlight() const override { return inFlight; }

    // The frames once at least `count` have arrived, or what came within two seconds.
    std::vector<Frame> await(std::size_t count) {
        std::unique_lock lock(mutex_);
        arrived_.wait_for(lock, std::chrono::seconds(2), [&] { return frames_.size() >= count; });
        return frames_;
    }

    std::atomic<Result> result{Result::sent};
    std::atomic<int> refusals{0};
    std::atomic<std::int64_t> inFlight{0};

  private:
    std::mutex mutex_;
    std::condition_variable arrived_;
    std::vector<Frame> frames_;
};

}  // namespace velmorand::testing
