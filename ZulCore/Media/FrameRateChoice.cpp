#include "ZulCore/Media/FrameRateChoice.h"

#include <algorithm>

namespace zul {

FrameRateChoice::FrameRateChoice(std::int64_t highest, std::int64_t lower)
    : highest_(std::max<std::int64_t>(highest, 1)),
      lower_(std::clamp<std::int64_t>(lower, 1, std::max<std::int64_t>(highest, 1))),
      current_(highest_) {
  recent_.reserve(window);
}

FrameRateChoice::Change FrameRateChoice::encoded(std::chrono::nanoseconds took) {
  std::lock_guard lock(mutex_);
  recent_.push_back(took);
  if (recent_.size() < window) return Change::none;
  std::vector<std::chrono::nanoseconds> sorted = recent_;
  std::nth_element(sorted.begin(), sorted.begin() + window / 2, sorted.end());
  typical_ = sorted[window / 2];
  recent_.clear();
  const std::chrono::nanoseconds interval = std::chrono::seconds(1);
  const auto highestInterval = interval / highest_;
  const std::int64_t now = current_.load(std::memory_order_relaxed);
  if (now == highest_ && lower_ < highest_ && typical_ * 5 > highestInterval * 4) {
    current_ = lower_;
    return Change::lowered;
  }
  if (now != highest_ && typical_ * 2 < highestInterval) {
    current_ = highest_;
    return Change::raised;
  }
  return Change::none;
}

std::chrono::nanoseconds FrameRateChoice::typicalEncodeTime() const {
  std::lock_guard lock(mutex_);
  return typical_;
}

}  // namespace zul
