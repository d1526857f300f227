#include "velmorand/stream/FrameBudget.h"

#include <algorithm>

namespace velmorand {
namespace {

std::int64_t averaged(std::int64_t average, std::int64_t sample) {
    return average == 0 ? sample : average + (sample - average) / 8;
}

}  // namespace

void FrameBudget::setFrameRate(std::int64_t frameRate) {
    frameRate_ = std::max<std::int64_t>(1, frameRate);
}

void FrameBudget::sent(std::int64_t bytes, bool keyFrame) {
    auto& average = keyFrame ? averageKeyFrame_ : averageFrame_;
    average = averaged(average, std::max<std::int64_t>(0, bytes));
}

std::int64_t FrameBudget::limit() const {
    // Key frames are rare; the rate is that of the frames between them, when there are any.
    const std::int64_t typical = averageFrame_ != 0 ? averageFrame_ : averageKeyFrame_;
    return std::max(kMinimum, typical * frameRate_ / 2);
}

std::int64_t FrameBudget::expected(bool keyFrame) const {
    return keyFrame && averageKeyFrame_ != 0 ? averageKeyFrame_ : averageFrame_;
}

}  // namespace velmorand
