#pragma once

#include <chrono>
#include <cstdint>

#include "ZulCore/Media/CaptureSource.h"

namespace zul {

// Decides when the capture loop reads the screen and whether a picture goes
// to the consumer. A change the server reports (`noticeChange`) makes a read
// due at once, or as soon as the active rate allows after the previous read;
// without reports the screen is read at the idle rate, so a still desktop
// costs one read and one frame per idle interval. A picture in which
// something changed is delivered; an unchanged one only when the idle
// interval has passed since the last delivery, and once `refreshAfterChange`
// after a change (never sooner than the active interval): should the last
// picture of a change go missing on the way, arrive blurred by a tight rate or
// wait in the phone's player for a frame behind it, the phone has it again,
// sharper, two frames later at 60 per second rather than after the idle
// interval. A due picture that finds the consumer busy is dropped; a change it
// carried stays pending.
class FrameGate {
 public:
  using Clock = std::chrono::steady_clock;
  static constexpr auto refreshAfterChange = std::chrono::milliseconds(33);

  enum class Decision {
    skip,     // nothing due: the picture is not delivered and costs nothing
    deliver,  // hand out a picture with the current content
  };

  // Rates at or below 0 count as one frame per second; the idle rate never
  // exceeds the active one.
  FrameGate(std::int64_t framesPerSecond, std::int64_t idleFramesPerSecond);

  Clock::duration activeInterval() const { return active_; }
  // A new rate while the screen changes (the encoder fell behind or caught
  // up); the idle rate stays, as long as it does not exceed it.
  void setFramesPerSecond(std::int64_t framesPerSecond);
  Clock::duration idleInterval() const { return idle_; }

  // The screen or the pointer changed (or may have: a server that reports
  // nothing has its screen sampled by noticing a change every interval).
  void noticeChange() { changeNoticed_ = true; }
  // When the next read is due: after a noticed change, the previous read plus
  // the active interval (at once when that has passed); otherwise when the
  // idle frame is due.
  Clock::time_point nextReadAt() const;

  // A picture was read at `now`; `changed` says whether the screen changed
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
  Clock::duration idleAsked_;
  bool delivered_ = false;
  bool changeNoticed_ = true;  // nothing read yet
  bool read_ = false;
  Clock::time_point lastRead_{};
  // The wait for an unchanged picture: the idle interval, shorter once
  // after a change.
  Clock::duration unchangedWait() const;

  bool pendingChange_ = true;  // the first picture is always new
  bool refreshDue_ = false;    // the last delivery carried a change
  Clock::time_point lastDelivery_{};
  std::int64_t dropped_ = 0;
};

// Sets the gate's rate to what the options' adaptive rate chooses now, never
// above their own rate; nothing without an adaptive rate.
void followAdaptiveRate(FrameGate& gate, const CaptureOptions& options);

}  // namespace zul
