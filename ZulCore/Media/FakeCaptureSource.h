#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>

#include "ZulCore/Media/CaptureSource.h"

namespace zul {

// Uniform grey NV12 frames at the requested rate, for running the pipeline
// without a screen. The grey level climbs with the frame number, so a
// consumer can tell frames apart.
class FakeCaptureSource final : public CaptureSource {
 public:
  FakeCaptureSource() = default;
  ~FakeCaptureSource() override;

  std::string name() const override { return "fake"; }
  void setFrameReady(FrameReady handler) override;
  void start(const CaptureOptions& options) override;
  void stop() noexcept override;

  // The frame that number `sequence` gets: luma (sequence mod 180) + 16,
  // chroma 128, one dirty rectangle over the whole frame.
  static CapturedFrame makeFrame(std::int64_t sequence, std::int64_t width, std::int64_t height,
                                 std::int64_t displayIndex);

 private:
  void runLoop(std::chrono::nanoseconds interval, std::int64_t width, std::int64_t height,
               std::int64_t displayIndex);
  void emitFrame(std::int64_t width, std::int64_t height, std::int64_t displayIndex);

  std::mutex mutex_;
  std::condition_variable wake_;
  FrameReady frameReady_;
  std::thread loop_;      // the running frame loop
  std::thread finished_;  // a loop stopped from its own callback, joined later
  bool cancelled_ = false;
  std::int64_t sequence_ = 0;  // last frame produced; never reset
};

}  // namespace zul
