#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <vector>

namespace zul {

// The video's frame rate while the screen changes: the highest asked for
// while the encoder keeps up with it, a lower one while encoding a frame
// takes longer than the highest rate's interval allows. The encoder reports
// how long each frame took; capture reads the rate it should run at. Shared
// between the encoder's thread and the capture thread.
class FrameRateChoice {
 public:
  // `highest` and `lower` at or below 0 count as 1; `lower` never exceeds
  // `highest`.
  explicit FrameRateChoice(std::int64_t highest, std::int64_t lower = 30);

  enum class Change { none, lowered, raised };
  // One frame took `took` to encode. The choice looks at the typical time of
  // the last frames (their median, so that a single key frame does not
  // count): beyond 80 % of the highest rate's interval the rate drops to the
  // lower one; below half of it, it goes back up.
  Change encoded(std::chrono::nanoseconds took);

  std::int64_t framesPerSecond() const { return current_.load(std::memory_order_relaxed); }
  std::int64_t highest() const { return highest_; }
  std::int64_t lower() const { return lower_; }
  // The median of the frames the last decision looked at (zero before one).
  std::chrono::nanoseconds typicalEncodeTime() const;

  // Frames a decision looks at.
  static constexpr std::size_t window = 16;

 private:
  const std::int64_t highest_;
  const std::int64_t lower_;
  std::atomic<std::int64_t> current_;
  mutable std::mutex mutex_;
  std::vector<std::chrono::nanoseconds> recent_;
  std::chrono::nanoseconds typical_{0};
};

}  // namespace zul
