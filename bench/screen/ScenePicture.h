#pragma once

// The bench scene's moving picture, the same on every desktop: bands of coloured bars scrolling
// sideways at different speeds under a brightness gradient rolling downwards (motion a video
// codec can predict, with a residual it cannot), in 32-bit B, G, R, x pixels.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

namespace velmorand::bench {

inline constexpr int kBytesPerPixel = 4;
inline constexpr int kBands = 6;
inline constexpr int kBarWidth = 64;
inline constexpr int kBars = 8;
// One period of the bar pattern; rows are cut from a wider copy so any offset is one memcpy.
inline constexpr int kPeriod = kBarWidth * kBars;
inline constexpr int kLevels = 64;
inline constexpr double kPi = 3.14159265358979323846;

// Every row the scene can show, precomputed: a frame is then one memcpy per row, so the scene
// costs the machine little next to what it measures.
class ScenePicture {
  public:
    ScenePicture(int width, int height) : width_(width), height_(height) {
        const int rowPixels = width + kPeriod;
        rows_.resize(static_cast<std::size_t>(kBands) * kLevels * rowPixels * kBytesPerPixel);
        static const std::uint8_t palette[kBands][kBars][3] = {
            {{230, 40, 40},
             {240, 160, 20},
             {240, 230, 40},
             {60, 200, 60},
             {40, 200, 220},
             {40, 80, 230},
             {150, 60, 220},
             {240, 240, 240}},
            {{20, 20, 20},
             {200, 200, 200},
             {120, 30, 30},
             {30, 120, 30},
             {30, 30, 120},
             {180, 180, 40},
             {40, 180, 180},
             {180, 40, 180}},
            {{250, 120, 120},
             {120, 250, 120},
             {120, 120, 250},
             {250, 250, 120},
             {120, 250, 250},
             {250, 120, 250},
             {60, 60, 60},
             {200, 140, 90}},
            {{90, 60, 30},
             {160, 110, 60},
             {220, 180, 120},
             {250, 240, 220},
             {30, 60, 90},
             {60, 110, 160},
             {120, 180, 220},
             {220, 240, 250}},
            {{255, 0, 0},
             {0, 255, 0},
             {0, 0, 255},
             {255, 255, 0},
             {0, 255, 255},
             {255, 0, 255},
             {255, 255, 255},
             {0, 0, 0}},
            {{70, 70, 90},
             {90, 90, 110},
             {110, 110, 130},
             {130, 130, 150},
             {150, 150, 170},
             {170, 170, 190},
             {190, 190, 210},
             {210, 210, 230}},
        };
        for (int band = 0; band < kBands; ++band) {
            for (int level = 0; level < kLevels; ++level) {
                const double brightness = 0.3 + 0.7 * level / (kLevels - 1);
                std::uint8_t* row = rowAt(band, level, 0);
                for (int x = 0; x < rowPixels; ++x) {
                    const int inPeriod = x % kPeriod;
                    const int bar = inPeriod / kBarWidth;
                    const int within = inPeriod % kBarWidth;
                    // A ramp inside each bar and a dark rule between bars: smooth areas and hard
                    // edges, as on a real screen.
                    const double ramp = within < 2 ? 0.25 : 0.8 + 0.2 * within / kBarWidth;
                    for (int channel = 0; channel < 3; ++channel) {
                        // Stored B, G, R as the screen does.
                        const double value = palette[band][bar][2 - channel] * brightness * ramp;
                        row[x * kBytesPerPixel + channel] =
                            static_cast<std::uint8_t>(std::lround(std::min(value, 255.0)));
                    }
                    row[x * kBytesPerPixel + 3] = 0;
                }
            }
        }
    }

    void paint(std::uint8_t* pixels, int stride, std::int64_t step) const {
        const int bandHeight = (height_ + kBands - 1) / kBands;
        for (int y = 0; y < height_; ++y) {
            const int band = std::min(y / bandHeight, kBands - 1);
            // Each band its own speed, alternating directions.
            const std::int64_t speed = (band + 1) * 3 * (band % 2 == 0 ? 1 : -1);
            const int offset = static_cast<int>(((step * speed) % kPeriod + kPeriod) % kPeriod);
            const double phase = 2 * kPi * static_cast<double>(y + step * 4) / 720.0;
            const int level =
                static_cast<int>(std::lround((0.5 + 0.5 * std::sin(phase)) * (kLevels - 1)));
            std::memcpy(pixels + static_cast<std::size_t>(y) * stride, rowAt(band, level, offset),
                        static_cast<std::size_t>(width_) * kBytesPerPixel);
        }
    }

  private:
    const std::uint8_t* rowAt(int band, int level, int offset) const {
        return const_cast<ScenePicture*>(this)->rowAt(band, level, offset);
    }
    std::uint8_t* rowAt(int band, int level, int offset) {
        const std::size_t rowPixels = static_cast<std::size_t>(width_) + kPeriod;
        return rows_.data() +
               ((static_cast<std::size_t>(band) * kLevels + static_cast<std::size_t>(level)) *
                    rowPixels +
                static_cast<std::size_t>(offset)) *
                   kBytesPerPixel;
    }

    int width_;
    int height_;
    std::vector<std::uint8_t> rows_;
};

}  // namespace velmorand::bench
