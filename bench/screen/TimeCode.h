#pragma once

// The wall-clock time drawn into the bench scene as black and white blocks, and read back from a
// decoded picture. Shared by the scene program (which writes it) and the stream bench (which
// reads it), so that both agree on one layout.
//
// 64 cells of 32×32 screen pixels in 4 rows of 16, inside a mid-grey frame one cell wide, at a
// fixed place near the top-left corner: a 4-cell guard (white, black, white, black), the low 48
// bits of the time in microseconds (most significant first), a CRC-8 of those 6 bytes and a
// closing guard (black, white, black, white). The guards give the reader its threshold and, with
// the CRC, reject a picture the codec smeared; the cells are large enough that half scale and
// JPEG quality 40 leave their centres clean.

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

namespace velmorand::bench {

struct TimeCodeLayout {
    static constexpr int kCell = 32;
    static constexpr int kColumns = 16;
    static constexpr int kRows = 4;
    static constexpr int kLeft = 64;
    static constexpr int kTop = 64;
    // The grey frame around the cells: keeps the moving scene's edges out of the outer cells.
    static constexpr int kFrame = kCell;
    static constexpr int kDataBits = 48;
    static constexpr int kCells = kColumns * kRows;
    static constexpr std::array<bool, 4> kOpeningGuard{true, false, true, false};
    static constexpr std::array<bool, 4> kClosingGuard{false, true, false, true};
    static constexpr std::uint8_t kFrameGrey = 128;
};

inline std::uint8_t crc8(std::uint64_t value48) {
    std::uint8_t crc = 0;
    for (int byte = 5; byte >= 0; --byte) {
        crc ^= static_cast<std::uint8_t>(value48 >> (8 * byte));
        for (int bit = 0; bit < 8; ++bit) {
            crc = static_cast<std::uint8_t>((crc & 0x80U) != 0 ? (crc << 1) ^ 0x07U : crc << 1);
        }
    }
    return crc;
}

// Each cell's colour, in the order cells are laid out (row by row).
inline std::array<bool, TimeCodeLayout::kCells> timeCodeCells(std::uint64_t timeUs) {
    using L = TimeCodeLayout;
    std::array<bool, L::kCells> cells{};
    const std::uint64_t value = timeUs & ((std::uint64_t{1} << L::kDataBits) - 1);
    std::size_t at = 0;
    for (const bool guard : L::kOpeningGuard) {
        cells[at++] = guard;
    }
    for (int bit = L::kDataBits - 1; bit >= 0; --bit) {
        cells[at++] = ((value >> bit) & 1U) != 0;
    }
    const std::uint8_t crc = crc8(value);
    for (int bit = 7; bit >= 0; --bit) {
        cells[at++] = ((crc >> bit) & 1U) != 0;
    }
    for (const bool guard : L::kClosingGuard) {
        cells[at++] = guard;
    }
    return cells;
}

// Draws the frame and the cells into 32-bit B, G, R, X pixels.
inline void drawTimeCode(std::uint8_t* pixels, int stride, int width, int height,
                         std::uint64_t timeUs) {
    using L = TimeCodeLayout;
    const auto cells = timeCodeCells(timeUs);
    const int x0 = L::kLeft - L::kFrame;
    const int y0 = L::kTop - L::kFrame;
    const int x1 = L::kLeft + L::kColumns * L::kCell + L::kFrame;
    const int y1 = L::kTop + L::kRows * L::kCell + L::kFrame;
    for (int y = y0; y < y1 && y < height; ++y) {
        std::uint8_t* row = pixels + static_cast<std::size_t>(y) * static_cast<std::size_t>(stride);
        const int cellRow = (y - L::kTop) / L::kCell;
        const bool inRows = y >= L::kTop && cellRow < L::kRows;
        for (int x = x0; x < x1 && x < width; ++x) {
            const int cellColumn = (x - L::kLeft) / L::kCell;
            std::uint8_t level = L::kFrameGrey;
            if (inRows && x >= L::kLeft && cellColumn < L::kColumns) {
                level =
                    cells[static_cast<std::size_t>(cellRow * L::kColumns + cellColumn)] ? 255 : 0;
            }
            std::uint8_t* pixel = row + static_cast<std::size_t>(x) * 4;
            pixel[0] = level;
            pixel[1] = level;
            pixel[2] = level;
            pixel[3] = 0;
        }
    }
}

// A picture's luma plane and how it maps onto the screen it was taken from.
struct LumaPlane {
    const std::uint8_t* data = nullptr;
    int stride = 0;
    int width = 0;
    int height = 0;
    int screenWidth = 0;
    int screenHeight = 0;
};

struct TimeCodeReading {
    // Low 48 bits of the time in microseconds.
    std::uint64_t low48 = 0;
    // Mean luma of the white guard cells minus that of the black ones.
    int contrast = 0;
};

// The time code read from the centres of the cells, or nothing when a guard or the CRC fails.
inline std::optional<TimeCodeReading> readTimeCode(const LumaPlane& plane) {
    using L = TimeCodeLayout;
    if (plane.data == nullptr || plane.width <= 0 || plane.height <= 0 || plane.screenWidth <= 0 ||
        plane.screenHeight <= 0) {
        return std::nullopt;
    }
    const double sx = static_cast<double>(plane.width) / plane.screenWidth;
    const double sy = static_cast<double>(plane.height) / plane.screenHeight;
    // The middle half of each cell: its edges are where scaling and compression blur.
    const double halfX = L::kCell * sx / 4;
    const double halfY = L::kCell * sy / 4;
    std::array<int, L::kCells> means{};
    for (int cell = 0; cell < L::kCells; ++cell) {
        const double cx = (L::kLeft + (cell % L::kColumns + 0.5) * L::kCell) * sx;
        const double cy = (L::kTop + (cell / L::kColumns + 0.5) * L::kCell) * sy;
        const int left = static_cast<int>(cx - halfX + 0.5);
        const int right = static_cast<int>(cx + halfX + 0.5);
        const int top = static_cast<int>(cy - halfY + 0.5);
        const int bottom = static_cast<int>(cy + halfY + 0.5);
        if (left < 0 || top < 0 || right > plane.width || bottom > plane.height || right <= left ||
            bottom <= top) {
            return std::nullopt;
        }
        long sum = 0;
        for (int y = top; y < bottom; ++y) {
            const std::uint8_t* row = plane.data + static_cast<std::ptrdiff_t>(y) * plane.stride;
            for (int x = left; x < right; ++x) {
                sum += row[x];
            }
        }
        means[static_cast<std::size_t>(cell)] =
            static_cast<int>(sum / (static_cast<long>(right - left) * (bottom - top)));
    }
    long white = 0;
    long black = 0;
    const auto guard = [&](const std::array<bool, 4>& pattern, int first) {
        for (std::size_t i = 0; i < pattern.size(); ++i) {
            (pattern[i] ? white : black) += means[static_cast<std::size_t>(first) + i];
        }
    };
    guard(L::kOpeningGuard, 0);
    guard(L::kClosingGuard, L::kCells - 4);
    white /= 4;
    black /= 4;
    // Video's limited range puts white at 235 and black at 16; anything much flatter is not the
    // code.
    const int contrast = static_cast<int>(white - black);
    if (contrast < 96) {
        return std::nullopt;
    }
    const int threshold = static_cast<int>((white + black) / 2);
    std::array<bool, L::kCells> bits{};
    for (std::size_t i = 0; i < bits.size(); ++i) {
        bits[i] = means[i] > threshold;
    }
    std::uint64_t value = 0;
    for (int i = 0; i < L::kDataBits; ++i) {
        value = (value << 1) | (bits[static_cast<std::size_t>(4 + i)] ? 1U : 0U);
    }
    std::uint8_t crc = 0;
    for (int i = 0; i < 8; ++i) {
        crc = static_cast<std::uint8_t>(
            (crc << 1) | (bits[static_cast<std::size_t>(4 + L::kDataBits + i)] ? 1U : 0U));
    }
    const auto expected = timeCodeCells(0);
    for (std::size_t i = 0; i < 4; ++i) {
        if (bits[i] != expected[i] || bits[L::kCells - 4 + i] != expected[L::kCells - 4 + i]) {
            return std::nullopt;
        }
    }
    if (crc != crc8(value)) {
        return std::nullopt;
    }
    return TimeCodeReading{value, contrast};
}

// The full time in microseconds whose low 48 bits are `low48`, nearest to `nearUs`.
inline std::uint64_t unwrapTimeCode(std::uint64_t low48, std::uint64_t nearUs) {
    constexpr std::uint64_t kSpan = std::uint64_t{1} << TimeCodeLayout::kDataBits;
    const std::uint64_t base = nearUs & ~(kSpan - 1);
    std::uint64_t best = base | low48;
    for (const std::uint64_t candidate : {best - kSpan, best + kSpan}) {
        const auto distance = [nearUs](std::uint64_t t) {
            return t > nearUs ? t - nearUs : nearUs - t;
        };
        if (distance(candidate) < distance(best)) {
            best = candidate;
        }
    }
    return best;
}

}  // namespace velmorand::bench
