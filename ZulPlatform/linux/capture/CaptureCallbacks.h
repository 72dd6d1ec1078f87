#pragma once

#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "ZulCore/Media/CaptureSource.h"
#include "ZulCore/Media/DisplayDescriptor.h"

namespace zul {

// The owner's callbacks of a capture source, guarded by the source's own
// mutex: set from any thread, called on the source's threads with that mutex
// released, and an owner's exception never takes a capture thread down.
class CaptureCallbacks {
 public:
  using FrameReady = CaptureSource::FrameReady;
  using CaptureFailed = std::function<void(const CaptureError&)>;
  using DisplaysChanged = std::function<void(const std::vector<DisplayDescriptor>& displays)>;

  explicit CaptureCallbacks(std::mutex& mutex) : mutex_(mutex) {}

  void setFrameReady(FrameReady handler) {
    std::lock_guard lock(mutex_);
    frameReady_ = std::move(handler);
  }
  void setCaptureFailed(CaptureFailed handler) {
    std::lock_guard lock(mutex_);
    captureFailed_ = std::move(handler);
  }
  void setDisplaysChanged(DisplaysChanged handler) {
    std::lock_guard lock(mutex_);
    displaysChanged_ = std::move(handler);
  }

  // With the mutex held: the consumer to hand the next frame to, and
  // whether an owner follows monitor changes.
  FrameReady frameReadyLocked() const { return frameReady_; }
  bool followsDisplaysLocked() const { return bool(displaysChanged_); }

  // Without the mutex.
  void reportFailure(const std::string& reason) {
    if (auto handler = copy(captureFailed_))
      call([&] { handler(CaptureError::captureFailed(reason)); });
  }
  // False when no owner follows monitor changes.
  bool reportDisplays(const std::vector<DisplayDescriptor>& displays) {
    auto handler = copy(displaysChanged_);
    if (!handler) return false;
    call([&] { handler(displays); });
    return true;
  }
  static void deliver(const FrameReady& handler, const CapturedFrame& frame) {
    if (handler) call([&] { handler(frame); });
  }

 private:
  template <typename Handler>
  Handler copy(const Handler& handler) const {
    std::lock_guard lock(mutex_);
    return handler;
  }
  template <typename Work>
  static void call(Work&& work) {
    try {
      work();
    } catch (...) {
      // the owner's failure is its own; capture goes on
    }
  }

  std::mutex& mutex_;
  FrameReady frameReady_;
  CaptureFailed captureFailed_;
  DisplaysChanged displaysChanged_;
};

}  // namespace zul
