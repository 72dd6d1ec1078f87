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
      idle_(std::max(intervalFor(idleFramesPerSecond), intervalFor(framesPerSecond))),
      idleAsked_(intervalFor(idleFramesPerSecond)) {}

void FrameGate::setFramesPerSecond(std::int64_t framesPerSecond) {
  active_ = intervalFor(framesPerSecond);
  idle_ = std::max(idleAsked_, active_);
}

void followAdaptiveRate(FrameGate& gate, const CaptureOptions& options) {
  if (!options.adaptiveRate) return;
  const std::int64_t chosen = options.adaptiveRate->framesPerSecond();
  gate.setFramesPerSecond(options.framesPerSecond > 0 ? std::min(chosen, options.framesPerSecond)
                                                      : chosen);
}

FrameGate::Clock::time_point FrameGate::nextReadAt() const {
  if (!read_) return Clock::time_point::min();
  if (changeNoticed_ || pendingChange_) return lastRead_ + active_;
  // A small allowance keeps wake-up jitter from pushing an idle frame back.
  return std::max(lastDelivery_ + unchangedWait() - active_ / 4, lastRead_ + active_);
}

FrameGate::Clock::duration FrameGate::unchangedWait() const {
  if (!refreshDue_) return idle_;
  return std::min<Clock::duration>(idle_, std::max<Clock::duration>(refreshAfterChange, active_));
}

FrameGate::Decision FrameGate::offer(Clock::time_point now, bool changed) {
  read_ = true;
  lastRead_ = now;
  changeNoticed_ = false;
  pendingChange_ = pendingChange_ || changed;
  if (!delivered_ || pendingChange_) return Decision::deliver;
  // A small allowance keeps sampling jitter from pushing an idle frame to the
  // next sample.
  const auto slack = active_ / 4;
  return now - lastDelivery_ + slack >= unchangedWait() ? Decision::deliver : Decision::skip;
}

void FrameGate::delivered(Clock::time_point now) {
  delivered_ = true;
  refreshDue_ = pendingChange_;
  pendingChange_ = false;
  lastDelivery_ = now;
}

}  // namespace zul
