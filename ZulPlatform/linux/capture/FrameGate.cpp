#include "ZulPlatform/linux/capture/FrameGate.h"

#include <algorithm>

namespace zul {
namespace {

FrameGate::Clock::duration intervalFor(std::int64_t framesPerSecond) {
  if (framesPerSecond <= 0) return std::chrono::seconds(1);
  return std::chrono::duration_cast<FrameGate::Clock::duration>(std::chrono::seconds(1)) /
         framesPerSecond;
}

}  // namespace

FrameGate::FrameGate(std::int64_t framesPerSecond, std::int64_t idleFramesPerSecond)
    : active_(intervalFor(framesPerSecond)),
      idle_(std::max(intervalFor(idleFramesPerSecond), intervalFor(framesPerSecond))) {}

FrameGate::Decision FrameGate::offer(Clock::time_point now, bool changed) {
  pendingChange_ = pendingChange_ || changed;
  if (!delivered_ || pendingChange_) return Decision::deliver;
  // A small allowance keeps sampling jitter from pushing an idle frame to the
  // next sample.
  const auto slack = active_ / 4;
  return now - lastDelivery_ + slack >= idle_ ? Decision::deliver : Decision::skip;
}

void FrameGate::delivered(Clock::time_point now) {
  delivered_ = true;
  pendingChange_ = false;
  lastDelivery_ = now;
}

}  // namespace zul
