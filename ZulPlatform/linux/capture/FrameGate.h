#pragma once

#include <chrono>
#include <cstdint>

namespace zul {

// Decides, for each picture the capture loop takes, whether it goes to the
// consumer. The loop samples the screen at the active rate; a picture in which
// something changed is due at once, an unchanged one only when the idle
// interval has passed since the last delivery, so a still desktop costs one
// frame per idle interval. A due picture that finds the consumer busy is
// dropped; a change it carried stays pending for the next sample.
class FrameGate {
 public:
  using Clock = std::chrono::steady_clock;

  enum class Decision {
    skip,     // nothing due: the picture is not delivered and costs nothing
    deliver,  // hand out a picture with the current content
  };

  // Rates at or below 0 count as one frame per second; the idle rate never
  // exceeds the active one.
  FrameGate(std::int64_t framesPerSecond, std::int64_t idleFramesPerSecond);

  Clock::duration activeInterval() const { return active_; }
  Clock::duration idleInterval() const { return idle_; }

  // A picture was taken at `now`; `changed` says whether the screen changed
  // since the previous one.
  Decision offer(Clock::time_point now, bool changed);
  // The outcome of a `deliver`: the consumer took it, or it was busy.
  void delivered(Clock::time_point now);
  void dropped() { ++dropped_; }

  // Whether the content changed since the picture last handed out (so the
  // source must convert a new one rather than hand out the previous again).
  bool contentChanged() const { return pendingChange_; }
  std::int64_t droppedCount() const { return dropped_; }

 private:
  Clock::duration active_;
  Clock::duration idle_;
  bool delivered_ = false;
  bool pendingChange_ = true;  // the first picture is always new
  Clock::time_point lastDelivery_{};
  std::int64_t dropped_ = 0;
};

}  // namespace zul
