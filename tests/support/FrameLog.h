#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "ZulCore/Media/CaptureSource.h"

namespace zul::test {

// The frames a capture source delivered (it is their callback), for the
// test thread to wait on; every wait gives up after 20 s.
class FrameLog {
 public:
  void operator()(const CapturedFrame& frame) {
    std::lock_guard lock(mutex_);
    frames_.push_back(frame);
    changed_.notify_all();
  }
  // The latest frame for which `match` holds, once there is one.
  std::optional<CapturedFrame> waitFor(const std::function<bool(const CapturedFrame&)>& match) {
    std::unique_lock lock(mutex_);
    std::optional<CapturedFrame> found;
    changed_.wait_for(lock, std::chrono::seconds(20), [&] {
      for (const auto& frame : frames_) {
        if (match(frame)) found = frame;
      }
      return found.has_value();
    });
    return found;
  }
  bool waitFor(std::size_t count) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, std::chrono::seconds(20),
                             [&] { return frames_.size() >= count; });
  }
  std::vector<CapturedFrame> frames() {
    std::lock_guard lock(mutex_);
    return frames_;
  }
  void clear() {
    std::lock_guard lock(mutex_);
    frames_.clear();
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<CapturedFrame> frames_;
};

}  // namespace zul::test
