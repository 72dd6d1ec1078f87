#include "ZulCore/Media/FakeCaptureSource.h"

#include <algorithm>
#include <cstdlib>
#include <limits>

namespace zul {

FakeCaptureSource::~FakeCaptureSource() {
  stop();
  if (finished_.joinable()) finished_.join();
}

void FakeCaptureSource::setFrameReady(FrameReady handler) {
  std::lock_guard lock(mutex_);
  frameReady_ = std::move(handler);
}

void FakeCaptureSource::start(const CaptureOptions& options) {
  std::unique_lock lock(mutex_);
  if (loop_.joinable()) throw CaptureError::alreadyRunning();
  if (finished_.joinable()) {
    std::thread old = std::move(finished_);
    lock.unlock();
    old.join();
    lock.lock();
    if (loop_.joinable()) throw CaptureError::alreadyRunning();
  }
  auto interval =
      std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::duration<double>(
          1.0 / static_cast<double>(std::max<std::int64_t>(options.framesPerSecond, 1))));
  std::int64_t width = std::max<std::int64_t>(options.width, 16);
  std::int64_t height = std::max<std::int64_t>(options.height, 16);
  cancelled_ = false;
  loop_ =
      std::thread(&FakeCaptureSource::runLoop, this, interval, width, height, options.displayIndex);
}

void FakeCaptureSource::stop() noexcept {
  std::thread loop;
  {
    std::lock_guard lock(mutex_);
    if (!loop_.joinable()) return;
    loop = std::move(loop_);
    cancelled_ = true;
  }
  wake_.notify_all();
  if (loop.get_id() == std::this_thread::get_id()) {
    // Stopped from our own frame callback: the loop ends when the callback
    // returns; whoever starts or destroys the source next joins it.
    std::lock_guard lock(mutex_);
    finished_ = std::move(loop);
    return;
  }
  // Waits for a frame in flight, so nothing is delivered after stop returns.
  loop.join();
}

void FakeCaptureSource::runLoop(std::chrono::nanoseconds interval, std::int64_t width,
                                std::int64_t height, std::int64_t displayIndex) {
  for (;;) {
    {
      std::unique_lock lock(mutex_);
      // The period is the interval plus the consumer's time: a slow consumer
      // slows the source instead of piling frames up.
      auto deadline = std::chrono::steady_clock::now() + interval;
      if (wake_.wait_until(lock, deadline, [this] { return cancelled_; })) return;
    }
    emitFrame(width, height, displayIndex);
  }
}

CapturedFrame FakeCaptureSource::makeFrame(std::int64_t sequence, std::int64_t width,
                                           std::int64_t height, std::int64_t displayIndex) {
  std::int64_t luma = 0;
  std::int64_t chroma = 0;
  std::int64_t total = 0;
  if (__builtin_mul_overflow(width, height, &luma) ||
      __builtin_add_overflow(luma, luma / 2, &total))
    std::abort();
  chroma = total - luma;
  auto data = std::make_shared<Bytes>(static_cast<std::size_t>(total));
  std::fill_n(data->begin(), luma, static_cast<std::uint8_t>(sequence % 180 + 16));
  std::fill_n(data->begin() + luma, chroma, std::uint8_t{128});

  CapturedFrame frame;
  frame.sequence = sequence;
  frame.capturedAt = std::chrono::system_clock::now();
  frame.width = width;
  frame.height = height;
  frame.pixelFormat = PixelFormat::nv12;
  frame.data = std::move(data);
  frame.dirtyRegions = {RectPx{0, 0, width, height}};
  frame.isHdr = false;
  frame.displayIndex = displayIndex;
  return frame;
}

void FakeCaptureSource::emitFrame(std::int64_t width, std::int64_t height,
                                  std::int64_t displayIndex) {
  std::int64_t n = 0;
  FrameReady handler;
  {
    std::lock_guard lock(mutex_);
    if (__builtin_add_overflow(sequence_, 1, &sequence_)) std::abort();
    n = sequence_;
    handler = frameReady_;
  }
  CapturedFrame frame = makeFrame(n, width, height, displayIndex);
  if (handler) handler(frame);
}

}  // namespace zul
