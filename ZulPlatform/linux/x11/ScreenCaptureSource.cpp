#include "ZulPlatform/linux/x11/ScreenCaptureSource.h"

// WebRTC's headers come before anything that includes Xlib, whose macros
// (None, Bool, Status) would break them.
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <future>
#include <mutex>
#include <system_error>
#include <thread>

#include "ZulCore/Media/FrameTrace.h"
#include "ZulCore/Support/Console.h"
#include "ZulPlatform/linux/capture/CaptureCallbacks.h"
#include "ZulPlatform/linux/capture/DamageRects.h"
#include "ZulPlatform/linux/capture/FrameGate.h"
#include "ZulPlatform/linux/capture/Nv12Converter.h"
#include "ZulPlatform/linux/capture/Nv12FrameSurface.h"
#include "ZulPlatform/linux/x11/X11CaptureConnection.h"
#include "modules/desktop_capture/desktop_and_cursor_composer.h"
#include "modules/desktop_capture/desktop_capture_options.h"
#include "modules/desktop_capture/desktop_capturer.h"
#include "modules/desktop_capture/desktop_frame.h"
#include "modules/desktop_capture/linux/x11/shared_x_display.h"

namespace zul {
namespace {

using Clock = std::chrono::steady_clock;

// How often the capture thread makes sure the server and the monitor are
// still there; a still screen makes no requests that would notice.
constexpr auto livenessInterval = std::chrono::milliseconds(250);
constexpr auto monitorCheckInterval = std::chrono::seconds(1);
// A change on a still screen is read once its drawing pauses this long, and
// at most `settleLimit` after it began: a page drawn in many requests (text,
// a toolkit's widgets) comes as one complete picture rather than a half one
// and the rest a frame interval later, which also costs the link a second
// large frame.
constexpr auto settleQuiet = std::chrono::microseconds(500);
constexpr auto settleLimit = std::chrono::milliseconds(5);

// Reuses the blocks of surfaces the consumer has let go, so a frame costs no
// fresh pages. Blocks outliving the pool are freed by their surface.
class SurfacePool : public std::enable_shared_from_this<SurfacePool> {
 public:
  SurfacePool(int width, int height)
      : width_(width), height_(height), size_(Nv12FrameSurface::bytesFor(width, height)) {}
  ~SurfacePool() {
    for (auto* block : free_) std::free(block);
  }

  std::shared_ptr<Nv12FrameSurface> take() {
    std::uint8_t* bytes = nullptr;
    {
      std::lock_guard lock(mutex_);
      if (!free_.empty()) {
        bytes = free_.back();
        free_.pop_back();
      }
    }
    if (!bytes) {
      bytes = static_cast<std::uint8_t*>(std::aligned_alloc(64, (size_ + 63) / 64 * 64 + 64));
      if (!bytes) throw std::bad_alloc();
    }
    std::weak_ptr<SurfacePool> pool = weak_from_this();
    return std::make_shared<Nv12FrameSurface>(
        width_, height_, Nv12FrameSurface::Block{bytes, size_, [pool, bytes] {
                                                   if (auto owner = pool.lock()) {
                                                     owner->giveBack(bytes);
                                                   } else {
                                                     std::free(bytes);
                                                   }
                                                 }});
  }

 private:
  void giveBack(std::uint8_t* bytes) {
    {
      std::lock_guard lock(mutex_);
      if (free_.size() < 4) {
        free_.push_back(bytes);
        return;
      }
    }
    std::free(bytes);
  }

  int width_;
  int height_;
  std::size_t size_;
  std::mutex mutex_;
  std::vector<std::uint8_t*> free_;
};

// An eventfd that wakes the capture thread out of poll().
class Waker {
 public:
  Waker() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  }
  ~Waker() { ::close(fd_); }
  Waker(const Waker&) = delete;
  Waker& operator=(const Waker&) = delete;
  int fd() const { return fd_; }
  void notify() noexcept {
    const std::uint64_t one = 1;
    (void)!::write(fd_, &one, sizeof one);
  }
  void drain() noexcept {
    std::uint64_t count = 0;
    (void)!::read(fd_, &count, sizeof count);
  }

 private:
  int fd_;
};

}  // namespace

struct ScreenCaptureSource::Impl : webrtc::DesktopCapturer::Callback {
  // What one run of the capture thread needs, fixed at start.
  struct Run {
    CaptureOptions options;
    DisplayDescriptor monitor;
    std::vector<DisplayDescriptor> monitors;  // the list as last seen
    int width = 0;
    int height = 0;
    std::unique_ptr<X11CaptureConnection> connection;
    std::promise<std::string> started;  // empty text: frames flow; else why not
  };

  std::string displayName;

  // Guards everything below.
  mutable std::mutex mutex;
  std::condition_variable wake;  // the delivery thread waits on it
  Waker waker;                   // the capture thread polls it beside the X connection
  CaptureCallbacks callbacks;
  CaptureTiming onCaptureTiming;
  bool running = false;
  bool stopRequested = false;
  bool handlingFrame = false;
  std::int64_t sequence = 0;
  std::optional<CapturedFrame> pending;  // the frame the delivery thread hands out next
  std::optional<std::uint32_t> resolvedDisplayID;
  Statistics statistics;
  std::thread captureThread;
  std::thread deliveryThread;

  // Touched by the capture thread alone.
  webrtc::DesktopCapturer::Result lastResult = webrtc::DesktopCapturer::Result::SUCCESS;
  std::unique_ptr<webrtc::DesktopFrame> lastFrame;

  void OnCaptureResult(webrtc::DesktopCapturer::Result result,
                       std::unique_ptr<webrtc::DesktopFrame> frame) override {
    lastResult = result;
    lastFrame = std::move(frame);
  }

  void captureLoop(Run& run);
  // Tells the owner of a changed monitor list; false when nobody listens.
  bool reportDisplaysChanged(const std::vector<DisplayDescriptor>& monitors);
  void deliveryLoop();
  // Ends the run from the capture thread: tells the owner, then stops.
  void fail(const std::string& reason);
};

void ScreenCaptureSource::Impl::fail(const std::string& reason) {
  callbacks.reportFailure(reason);
  std::lock_guard lock(mutex);
  running = false;
}

bool ScreenCaptureSource::Impl::reportDisplaysChanged(
    const std::vector<DisplayDescriptor>& monitors) {
  return callbacks.reportDisplays(monitors);
}

void ScreenCaptureSource::Impl::captureLoop(Run& run) {
  bool reportedStart = false;
  auto failBeforeOrAfterStart = [&](const std::string& reason) {
    if (!reportedStart) {
      run.started.set_value(reason);
    } else {
      fail(reason);
    }
  };

  std::atomic<bool> capturerLost{false};
  // WebRTC opens its own connection and sets up its extensions as the
  // capturer is made and started, and closes it with the capturer: both under
  // the lock all X connections of the process are opened and closed with.
  struct CloseLocked {
    void operator()(webrtc::DesktopCapturer* capturer) const {
      auto lock = X11CaptureConnection::lockConnections();
      delete capturer;
    }
  };
  std::unique_ptr<webrtc::DesktopCapturer, CloseLocked> capturer;
  {
    auto lock = X11CaptureConnection::lockConnections();
    webrtc::DesktopCaptureOptions captureOptions;
    auto shared = webrtc::SharedXDisplay::Create(run.connection->name());
    if (!shared) return failBeforeOrAfterStart("cannot open X display " + run.connection->name());
    X11CaptureConnection::setUpExtensions(shared->display());
    X11CaptureConnection::reportServerLoss(shared->display(), &capturerLost);
    captureOptions.set_x_display(shared);
    captureOptions.set_use_update_notifications(true);  // XDamage: read only what changed
    auto screen = webrtc::DesktopCapturer::CreateScreenCapturer(captureOptions);
    if (!screen) return failBeforeOrAfterStart("no X11 screen capturer");
    if (run.monitor.displayID != 0 &&
        !screen->SelectSource(
            static_cast<webrtc::DesktopCapturer::SourceId>(run.monitor.displayID))) {
      return failBeforeOrAfterStart("monitor " + std::to_string(run.monitor.index) + " vanished");
    }
    capturer.reset(new webrtc::DesktopAndCursorComposer(std::move(screen), captureOptions));
    capturer->Start(this);
  }
  run.connection->watchMonitors();
  // Where the server reports changes, a change is read as soon as the rate
  // allows; elsewhere the screen is sampled at the active rate.
  const bool reported = run.connection->watchScreen();

  FrameGate gate(run.options.framesPerSecond, run.options.idleFramesPerSecond);
  auto pool = std::make_shared<SurfacePool>(run.width, run.height);
  Nv12Converter converter;
  std::shared_ptr<Nv12FrameSurface> lastSurface;
  // What changed on the screen since the last conversion, as the server
  // reported it (the pointer's old and new place included).
  webrtc::DesktopRegion damage;
  auto lastLiveness = Clock::now();
  auto lastMonitorCheck = Clock::now();
  // The pointer moves without damage (a hardware cursor draws nothing): its
  // position is looked at once per active interval.
  auto nextPointerLook = Clock::now();
  // Where the pointer was last seen; a failed look counts as no move.
  std::pair<int, int> lastPointer{INT_MIN, INT_MIN};
  auto readNotBefore = Clock::time_point::min();  // after a failed read
  auto lastReadAt = Clock::now() - std::chrono::seconds(1);
  bool drawn = false;        // the server reported drawing since the last read
  bool busyCounted = false;  // the due frame that is waiting for the consumer was counted
  bool monitorsNoticed = false;
  int temporaryFailures = 0;

  for (;;) {
    // Notices the last calls on the connection already read would not wake
    // poll(): take them first.
    auto takeNotices = [&] {
      const auto notices = run.connection->takeNotices();
      if (notices.screen) gate.noticeChange();
      drawn = drawn || notices.screen;
      monitorsNoticed = monitorsNoticed || notices.monitors;
    };
    takeNotices();
    followAdaptiveRate(gate, run.options);
    // Wait for the next due moment, a notice from the server or a wake-up
    // (stop, the consumer done with its frame).
    {
      auto deadline = std::min(nextPointerLook, lastLiveness + livenessInterval);
      bool busy = false;
      {
        std::lock_guard lock(mutex);
        if (stopRequested) break;
        busy = handlingFrame;
      }
      // A due read waits for a free consumer rather than being read and dropped.
      if (!busy) deadline = std::min(deadline, std::max(gate.nextReadAt(), readNotBefore));
      const auto wait = deadline - Clock::now();
      if (wait > Clock::duration::zero()) {
        pollfd fds[2] = {{waker.fd(), POLLIN, 0}, {run.connection->fd(), POLLIN, 0}};
        const int timeoutMs = int(std::chrono::ceil<std::chrono::milliseconds>(
                                      std::min<Clock::duration>(wait, std::chrono::seconds(1)))
                                      .count());
        (void)::poll(fds, 2, timeoutMs);
      }
      waker.drain();
      std::lock_guard lock(mutex);
      if (stopRequested) break;
    }
    const auto now = Clock::now();
    takeNotices();
    if (now >= nextPointerLook) {
      nextPointerLook = now + gate.activeInterval();
      if (!reported) {
        gate.noticeChange();
      } else if (auto pointer = run.connection->pointer().value_or(lastPointer);
                 pointer != lastPointer) {
        lastPointer = pointer;
        gate.noticeChange();
      }
    }

    if (now - lastLiveness >= livenessInterval) {
      lastLiveness = now;
      if (!run.connection->alive()) capturerLost = true;
    }
    if (capturerLost) {
      return failBeforeOrAfterStart("the X server of " + run.connection->name() + " went away");
    }
    // Notices make a change seen at once; the periodic look catches servers
    // that send none.
    if (monitorsNoticed || now - lastMonitorCheck >= monitorCheckInterval) {
      monitorsNoticed = false;
      lastMonitorCheck = now;
      auto monitors = run.connection->monitors();
      // An empty list means the server is gone, which the liveness check reports.
      if (!monitors.empty() && monitors != run.monitors) {
        run.monitors = std::move(monitors);
        bool present = false;
        for (const auto& monitor : run.monitors) {
          present = present || monitor.displayID == run.monitor.displayID;
        }
        const bool heard = reportDisplaysChanged(run.monitors);
        if (!present) {
          const std::string gone = "monitor " + std::to_string(run.monitor.index) + " of " +
                                   run.connection->name() + " went away";
          if (!heard || !reportedStart) return failBeforeOrAfterStart(gone);
          std::lock_guard lock(mutex);
          running = false;
          return;
        }
      }
    }

    if (now < gate.nextReadAt() || now < readNotBefore) continue;
    {
      std::lock_guard lock(mutex);
      if (handlingFrame) {
        // At most one frame in the consumer's hands: this one is dropped
        // (counted once) and read when the consumer is done.
        if (!busyCounted) {
          gate.dropped();
          ++statistics.dropped;
          busyCounted = true;
        }
        continue;
      }
    }
    busyCounted = false;

    // Fresh drawing on a still screen: wait for it to pause (see settleQuiet).
    if (drawn && now - lastReadAt > 2 * gate.activeInterval()) {
      const auto limit = now + settleLimit;
      for (bool drawing = true; drawing && Clock::now() < limit;) {
        run.connection->takeDamage();  // what is drawn from now on is noticed anew
        std::this_thread::sleep_for(settleQuiet);
        const auto notices = run.connection->takeNotices();
        drawing = notices.screen;
        monitorsNoticed = monitorsNoticed || notices.monitors;
      }
    }
    run.connection->takeDamage();
    drawn = false;
    const auto readStart = Clock::now();
    lastReadAt = readStart;
    capturer->CaptureFrame();
    const auto readTime = Clock::now() - readStart;
    auto frame = std::move(lastFrame);

    if (lastResult == webrtc::DesktopCapturer::Result::ERROR_PERMANENT) {
      return failBeforeOrAfterStart("the screen of " + run.connection->name() +
                                    " cannot be captured");
    }
    if (lastResult != webrtc::DesktopCapturer::Result::SUCCESS || !frame) {
      // A temporary failure (for example while the screen is being resized).
      if (++temporaryFailures >= 100) {
        return failBeforeOrAfterStart("capture keeps failing on " + run.connection->name());
      }
      readNotBefore = now + gate.activeInterval();
      continue;
    }
    temporaryFailures = 0;
    if (!reportedStart) {
      reportedStart = true;
      run.started.set_value({});
    }

    std::int64_t number = 0;
    std::int64_t displayIndex = 0;
    const bool changed = !frame->updated_region().is_empty();
    damage.AddRegion(frame->updated_region());
    {
      std::lock_guard lock(mutex);
      ++statistics.captured;
      if (gate.offer(now, changed) == FrameGate::Decision::skip) continue;
      handlingFrame = true;  // only this thread sets it: the consumer is still free
      number = ++sequence;
      displayIndex = run.options.displayIndex;
    }
    const bool convert = gate.contentChanged() || !lastSurface;
    const auto convertStart = Clock::now();
    std::vector<RectPx> converted;
    if (convert) {
      const int sourceWidth = frame->size().width(), sourceHeight = frame->size().height();
      if (lastSurface) {
        std::vector<RectPx> changedRects;
        for (webrtc::DesktopRegion::Iterator it(damage); !it.IsAtEnd(); it.Advance()) {
          const auto& r = it.rect();
          changedRects.push_back({r.left(), r.top(), r.width(), r.height()});
        }
        converted = rectsToConvert(changedRects, sourceWidth, sourceHeight, run.width, run.height);
      }
      if (!lastSurface || converted.empty()) {
        // The first picture, or one the server said nothing about: all of it.
        auto surface = pool->take();
        converter.convert(frame->data(), frame->stride(), sourceWidth, sourceHeight,
                          /*rgbOrder=*/false, *surface);
        lastSurface = std::move(surface);
        converted = {RectPx{0, 0, run.width, run.height}};
      } else {
        // Only what changed; the rest is the previous picture's. A surface
        // nobody else holds any more is updated where it is.
        if (lastSurface.use_count() > 1) {
          auto surface = pool->take();
          const std::size_t bytes = Nv12FrameSurface::bytesFor(run.width, run.height);
          std::memcpy(surface->luma(), lastSurface->luma(), bytes);
          lastSurface = std::move(surface);
        }
        converter.convertRects(frame->data(), frame->stride(), sourceWidth, sourceHeight,
                               /*rgbOrder=*/false, *lastSurface, converted);
      }
      damage.Clear();
    }
    const auto convertTime = Clock::now() - convertStart;
    gate.delivered(now);

    CapturedFrame captured{
        .sequence = number,
        .capturedAt = std::chrono::system_clock::now(),
        .width = run.width,
        .height = run.height,
        .pixelFormat = PixelFormat::nv12,
        .data = nullptr,
        .dirtyRegions = std::move(converted),
        .isHdr = false,
        .displayIndex = displayIndex,
        .nativeSurface = lastSurface,
    };
    const auto readyAt = Clock::now();
    CaptureTiming timing;
    {
      std::lock_guard lock(mutex);
      statistics.converted += convert ? 1 : 0;
      pending = std::move(captured);
      timing = onCaptureTiming;
      wake.notify_all();
    }
    if (frameTraceEnabled() && convert) {
      char line[160];
      std::snprintf(
          line, sizeof line, "captured read_at=%.3f read=%.3f convert=%.3f ready=%.3f",
          wallMsOf(readStart), std::chrono::duration<double, std::milli>(readTime).count(),
          std::chrono::duration<double, std::milli>(convertTime).count(), wallMsOf(readyAt));
      traceFrame(line);
    }
    if (timing) {
      try {
        timing(readTime, convert ? convertTime : Clock::duration::zero());
      } catch (...) {
        // measurements must not stop the capture
      }
    }
  }
  if (!reportedStart) run.started.set_value("stopped before the first frame");
}

void ScreenCaptureSource::Impl::deliveryLoop() {
  for (;;) {
    CapturedFrame frame;
    FrameReady handler;
    {
      std::unique_lock lock(mutex);
      wake.wait(lock, [&] { return pending.has_value() || stopRequested; });
      if (!pending) return;
      frame = std::move(*pending);
      pending.reset();
      handler = callbacks.frameReady.handler();
      ++statistics.delivered;
    }
    CaptureCallbacks::deliver(handler, frame);
    {
      std::lock_guard lock(mutex);
      handlingFrame = false;
    }
    waker.notify();  // a read waiting for a free consumer goes on
  }
}

ScreenCaptureSource::ScreenCaptureSource(std::string displayName)
    : impl_(std::make_shared<Impl>()) {
  impl_->displayName = std::move(displayName);
}

ScreenCaptureSource::~ScreenCaptureSource() { stop(); }

std::vector<DisplayDescriptor> ScreenCaptureSource::availableDisplays(
    const std::string& displayName) {
  auto connection = X11CaptureConnection::open(displayName);
  if (!connection) {
    throw CaptureError::platformUnsupported("cannot open X display \"" + displayName + "\"");
  }
  return connection->monitors();
}

std::optional<std::uint32_t> ScreenCaptureSource::primaryDisplayID(const std::string& displayName) {
  auto connection = X11CaptureConnection::open(displayName);
  if (!connection) {
    throw CaptureError::platformUnsupported("cannot open X display \"" + displayName + "\"");
  }
  std::optional<std::uint32_t> primary;
  connection->monitors(&primary);
  return primary;
}

void ScreenCaptureSource::setFrameReady(FrameReady handler) {
  impl_->callbacks.frameReady = std::move(handler);
}

void ScreenCaptureSource::setCaptureFailed(CaptureFailed handler) {
  impl_->callbacks.captureFailed = std::move(handler);
}

void ScreenCaptureSource::setDisplaysChanged(DisplaysChanged handler) {
  impl_->callbacks.displaysChanged = std::move(handler);
}

void ScreenCaptureSource::setOnCaptureTiming(CaptureTiming handler) {
  std::lock_guard lock(impl_->mutex);
  impl_->onCaptureTiming = std::move(handler);
}

void ScreenCaptureSource::start(const CaptureOptions& options) {
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->running) throw CaptureError::alreadyRunning();
  }
  stop();  // joins the threads of a run that ended by itself

  auto connection = X11CaptureConnection::open(impl_->displayName);
  const std::string shownName =
      connection ? connection->name()
                 : (impl_->displayName.empty()
                        ? std::string(std::getenv("DISPLAY") ? std::getenv("DISPLAY") : "")
                        : impl_->displayName);
  const bool readable = connection && connection->canReadScreen();
  if (verboseOutput()) {
    std::fprintf(stderr, "XGetImage(root of \"%s\") -> %s\n",
                 escapeControlCharacters(shownName).c_str(), readable ? "true" : "false");
  }
  if (!connection) {
    throw CaptureError::platformUnsupported("cannot open X display \"" + shownName + "\"");
  }
  if (!readable) throw CaptureError::screenRecordingPermissionDenied();

  const auto monitors = connection->monitors();
  // Unsigned, so that a negative index is out of range too.
  if (static_cast<std::uint64_t>(options.displayIndex) >= monitors.size()) {
    throw CaptureError::displayUnavailable(options.displayIndex);
  }
  const DisplayDescriptor& monitor = monitors[std::size_t(options.displayIndex)];
  {
    std::lock_guard lock(impl_->mutex);
    impl_->resolvedDisplayID = monitor.displayID;
  }

  auto run = std::make_shared<Impl::Run>();
  run->options = options;
  run->monitor = monitor;
  run->monitors = monitors;
  run->width =
      int(options.width > 0 ? std::min<std::int64_t>(options.width, 16384) : monitor.width);
  run->height =
      int(options.height > 0 ? std::min<std::int64_t>(options.height, 16384) : monitor.height);
  run->connection = std::move(connection);
  auto started = run->started.get_future();

  {
    std::lock_guard lock(impl_->mutex);
    impl_->running = true;
    impl_->stopRequested = false;
    impl_->pending.reset();
    auto* impl = impl_.get();
    impl_->deliveryThread = std::thread([impl] { impl->deliveryLoop(); });
    impl_->captureThread = std::thread([impl, run] {
      try {
        impl->captureLoop(*run);
      } catch (const std::exception& error) {
        impl->fail(error.what());
      } catch (...) {
        impl->fail("unexpected failure");
      }
    });
  }
  const std::string failure = started.get();
  if (!failure.empty()) {
    stop();
    throw CaptureError::captureFailed(failure);
  }
}

void ScreenCaptureSource::stop() noexcept {
  std::thread capture, delivery;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->stopRequested = true;
    impl_->running = false;
    if (impl_->pending) {
      // Never handed out: the slot is free again.
      impl_->pending.reset();
      impl_->handlingFrame = false;
    }
    capture = std::move(impl_->captureThread);
    delivery = std::move(impl_->deliveryThread);
    impl_->wake.notify_all();
  }
  impl_->waker.notify();
  // Stopped from inside a callback (frameReady on the delivery thread,
  // captureFailed on the capture thread): that thread cannot join itself; it
  // ends after the callback and the next start or the destructor joins it.
  auto joinOrKeep = [this](std::thread& thread, std::thread Impl::*slot) {
    if (!thread.joinable()) return;
    if (thread.get_id() == std::this_thread::get_id()) {
      std::lock_guard lock(impl_->mutex);
      (*impl_).*slot = std::move(thread);
    } else {
      thread.join();
    }
  };
  joinOrKeep(capture, &Impl::captureThread);
  joinOrKeep(delivery, &Impl::deliveryThread);
}

std::optional<std::uint32_t> ScreenCaptureSource::resolvedDisplayID() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->resolvedDisplayID;
}

ScreenCaptureSource::Statistics ScreenCaptureSource::statistics() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->statistics;
}

}  // namespace zul
