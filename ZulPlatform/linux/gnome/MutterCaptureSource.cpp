#include "ZulPlatform/linux/gnome/MutterCaptureSource.h"

#include <algorithm>
#include <condition_variable>
#include <cstring>
#include <future>
#include <mutex>
#include <thread>
#include <utility>

#include "ZulPlatform/linux/capture/CaptureCallbacks.h"
#include "ZulPlatform/linux/capture/DamageRects.h"
#include "ZulPlatform/linux/capture/FrameGate.h"
#include "ZulPlatform/linux/capture/Nv12Converter.h"
#include "ZulPlatform/linux/capture/Nv12FrameSurface.h"
#include "ZulPlatform/linux/gnome/PipeWireStream.h"

namespace zul {
namespace {

using Clock = std::chrono::steady_clock;

// Mutter sends its first picture as soon as the stream runs; a session that
// sends none within this time is not usable.
constexpr auto firstPictureTimeout = std::chrono::seconds(10);

struct Pixels {
  std::vector<std::uint8_t> bytes;
  int width = 0;
  int height = 0;
  int stride = 0;
  bool rgbOrder = false;
  // What changed since the picture converted last; unknown: all of it.
  std::optional<std::vector<RectPx>> damage;
};

std::vector<DisplayDescriptor> descriptorsOf(const std::vector<MutterMonitor>& monitors) {
  std::vector<DisplayDescriptor> out;
  for (const auto& monitor : monitors) out.push_back(monitor.display);
  return out;
}

}  // namespace

struct MutterCaptureSource::Impl {
  struct Run {
    CaptureOptions options;
    MutterMonitor monitor;
    int width = 0;
    int height = 0;
    std::shared_ptr<MutterSession> session;
    std::unique_ptr<PipeWireStream> stream;
    std::promise<std::string> started;  // empty: frames flow; else why not
  };

  std::shared_ptr<MutterDesktop> desktop;

  mutable std::mutex mutex;  // guards everything below
  std::condition_variable wake;
  CaptureCallbacks callbacks;
  bool running = false;
  bool stopRequested = false;
  std::int64_t sequence = 0;
  std::optional<std::uint32_t> resolvedDisplayID;
  std::thread thread;
  int monitorsToken = 0;
  // Written by the PipeWire thread: the newest picture not yet taken.
  Pixels incoming;
  bool fresh = false;
  bool monitorsChanged = false;
  std::optional<std::string> ended;

  void captureLoop(Run& run);
  void fail(const std::string& reason);
  void received(const PipeWireStream::Picture& picture) {
    std::lock_guard lock(mutex);
    const std::size_t size = std::size_t(picture.stride) * picture.height;
    incoming.bytes.resize(size);
    std::memcpy(incoming.bytes.data(), picture.pixels, size);
    incoming.width = picture.width;
    incoming.height = picture.height;
    incoming.stride = picture.stride;
    incoming.rgbOrder = picture.rgbOrder;
    // A picture not taken yet is replaced: its changes count for this one.
    if (!fresh || !picture.damage || !incoming.damage) {
      incoming.damage = fresh ? std::nullopt : picture.damage;
    } else {
      incoming.damage->insert(incoming.damage->end(), picture.damage->begin(),
                              picture.damage->end());
    }
    fresh = true;
    wake.notify_all();
  }
  void endWith(const std::string& reason) {
    std::lock_guard lock(mutex);
    if (!ended) ended = reason;
    wake.notify_all();
  }
};

void MutterCaptureSource::Impl::fail(const std::string& reason) {
  callbacks.reportFailure(reason);
  std::lock_guard lock(mutex);
  running = false;
}

void MutterCaptureSource::Impl::captureLoop(Run& run) {
  bool reportedStart = false;
  FrameGate gate(run.options.framesPerSecond, run.options.idleFramesPerSecond);
  Nv12Converter converter;
  Pixels working;
  std::shared_ptr<Nv12FrameSurface> lastSurface;
  int lastSourceWidth = 0, lastSourceHeight = 0;
  Clock::time_point lastTaken{};
  auto nextSample = Clock::now();
  const auto firstPictureDeadline = Clock::now() + firstPictureTimeout;

  // Ends the run; before the first frame the failure goes to start().
  auto finish = [&](const std::string& reason) {
    if (!reportedStart) {
      run.started.set_value(reason);
    } else {
      fail(reason);
    }
  };
  // Whether the recorded monitor is still there, and tells the owner the
  // list; nothing when mutter itself does not answer (gone, restarting).
  auto monitorStillThere = [&]() -> std::optional<bool> {
    std::vector<MutterMonitor> monitors;
    try {
      monitors = desktop->monitors();
    } catch (const std::exception&) {
      return std::nullopt;
    }
    callbacks.reportDisplays(descriptorsOf(monitors));
    return std::any_of(monitors.begin(), monitors.end(), [&](const MutterMonitor& m) {
      return m.connector == run.monitor.connector;
    });
  };

  for (;;) {
    bool changed = false;
    std::int64_t number = 0;
    FrameReady handler;
    followAdaptiveRate(gate, run.options);
    {
      std::unique_lock lock(mutex);
      // A new picture is taken at once when the active interval since the
      // last one has passed; else at the next sample.
      wake.wait_until(lock, reportedStart ? nextSample : firstPictureDeadline, [&] {
        return stopRequested || ended || monitorsChanged ||
               (fresh && (!reportedStart || Clock::now() >= lastTaken + gate.activeInterval()));
      });
      if (stopRequested) break;
      if (monitorsChanged) {
        monitorsChanged = false;
        const bool heard = bool(callbacks.displaysChanged);
        lock.unlock();
        const auto there = monitorStillThere();
        if (!there) return finish("mutter does not answer");
        if (!*there) {
          const std::string gone = "monitor " + run.monitor.connector + " went away";
          if (!heard || !reportedStart) return finish(gone);
          std::lock_guard relock(mutex);
          running = false;
          return;
        }
        continue;
      }
      if (ended) {
        const std::string reason = *ended;
        const bool heard = bool(callbacks.displaysChanged);
        lock.unlock();
        // Mutter closes the session of a monitor that went away: that is a
        // change of monitors, not a failure, for an owner that follows them.
        if (heard && reportedStart) {
          if (const auto there = monitorStillThere(); there && !*there) {
            std::lock_guard relock(mutex);
            running = false;
            return;
          }
        }
        return finish(reason);
      }
      const auto now = Clock::now();
      if (!reportedStart && !fresh) {
        lock.unlock();
        return finish("no picture from the screen-cast stream of " + run.monitor.connector);
      }
      if (now >= nextSample) {
        nextSample += gate.activeInterval();
        if (nextSample < now) nextSample = now + gate.activeInterval();  // fell behind: no burst
      }
      if (fresh) {
        std::swap(working, incoming);
        fresh = false;
        changed = true;
        lastTaken = now;
        nextSample = now + gate.activeInterval();
      }
      if (working.bytes.empty()) continue;
      if (!reportedStart) {
        reportedStart = true;
        run.started.set_value({});
      }
      if (gate.offer(now, changed) == FrameGate::Decision::skip) continue;
      number = ++sequence;
      handler = callbacks.frameReady.handler();
      gate.delivered(now);
    }
    std::vector<RectPx> converted;
    if (changed || !lastSurface) {
      // Only what mutter says changed, where it says so and the previous
      // picture had this size; else all of it.
      if (lastSurface && working.damage && working.width == lastSourceWidth &&
          working.height == lastSourceHeight) {
        converted =
            rectsToConvert(*working.damage, working.width, working.height, run.width, run.height);
      }
      if (converted.empty()) {
        auto surface = Nv12FrameSurface::allocate(run.width, run.height);
        converter.convert(working.bytes.data(), working.stride, working.width, working.height,
                          working.rgbOrder, *surface);
        lastSurface = std::move(surface);
        converted = {RectPx{0, 0, run.width, run.height}};
      } else {
        // A surface nobody else holds any more is updated where it is.
        if (lastSurface.use_count() > 1) {
          auto surface = Nv12FrameSurface::allocate(run.width, run.height);
          std::memcpy(surface->luma(), lastSurface->luma(),
                      Nv12FrameSurface::bytesFor(run.width, run.height));
          lastSurface = std::move(surface);
        }
        converter.convertRects(working.bytes.data(), working.stride, working.width,
                               working.height, working.rgbOrder, *lastSurface, converted);
      }
      lastSourceWidth = working.width;
      lastSourceHeight = working.height;
    }
    CapturedFrame frame{
        .sequence = number,
        .capturedAt = std::chrono::system_clock::now(),
        .width = run.width,
        .height = run.height,
        .pixelFormat = PixelFormat::nv12,
        .data = nullptr,
        .dirtyRegions = std::move(converted),
        .isHdr = false,
        .displayIndex = run.options.displayIndex,
        .nativeSurface = lastSurface,
    };
    // On this thread: while the consumer holds the frame, newer pictures
    // replace each other in `incoming` and only the newest is handed out.
    CaptureCallbacks::deliver(handler, frame);
  }
  if (!reportedStart) run.started.set_value("stopped before the first frame");
}

MutterCaptureSource::MutterCaptureSource(std::shared_ptr<MutterDesktop> desktop)
    : impl_(std::make_shared<Impl>()) {
  impl_->desktop = std::move(desktop);
}

MutterCaptureSource::~MutterCaptureSource() { stop(); }

void MutterCaptureSource::setFrameReady(FrameReady handler) {
  impl_->callbacks.frameReady = std::move(handler);
}

void MutterCaptureSource::setCaptureFailed(CaptureFailed handler) {
  impl_->callbacks.captureFailed = std::move(handler);
}

void MutterCaptureSource::setDisplaysChanged(DisplaysChanged handler) {
  impl_->callbacks.displaysChanged = std::move(handler);
}

void MutterCaptureSource::start(const CaptureOptions& options) {
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->running) throw CaptureError::alreadyRunning();
  }
  stop();  // joins the thread of a run that ended by itself

  std::vector<MutterMonitor> monitors;
  try {
    monitors = impl_->desktop->monitors();
  } catch (const MutterError& error) {
    throw CaptureError::platformUnsupported(error.what());
  }
  // Unsigned, so that a negative index is out of range too.
  if (static_cast<std::uint64_t>(options.displayIndex) >= monitors.size()) {
    throw CaptureError::displayUnavailable(options.displayIndex);
  }
  const MutterMonitor& monitor = monitors[std::size_t(options.displayIndex)];
  {
    std::lock_guard lock(impl_->mutex);
    impl_->resolvedDisplayID = monitor.display.displayID;
  }

  auto run = std::make_shared<Impl::Run>();
  run->options = options;
  run->monitor = monitor;
  run->width =
      int(options.width > 0 ? std::min<std::int64_t>(options.width, 16384) : monitor.display.width);
  run->height = int(options.height > 0 ? std::min<std::int64_t>(options.height, 16384)
                                       : monitor.display.height);
  try {
    run->session = impl_->desktop->openSession(monitor.connector);
  } catch (const MutterError& error) {
    throw CaptureError::captureFailed(error.what());
  }
  {
    std::lock_guard lock(impl_->mutex);
    impl_->fresh = false;
    impl_->ended.reset();
    impl_->monitorsChanged = false;
    impl_->stopRequested = false;
    impl_->running = true;
  }
  std::weak_ptr<Impl> weak = impl_;
  run->session->onClosed = [weak] {
    if (auto impl = weak.lock()) impl->endWith("mutter closed the remote-desktop session");
  };
  const int token = impl_->desktop->addMonitorsChanged([weak] {
    if (auto impl = weak.lock()) {
      std::lock_guard lock(impl->mutex);
      impl->monitorsChanged = true;
      impl->wake.notify_all();
    }
  });
  {
    std::lock_guard lock(impl_->mutex);
    impl_->monitorsToken = token;
  }
  try {
    auto* impl = impl_.get();
    run->stream = std::make_unique<PipeWireStream>(
        run->session->pipeWireNode(),
        [impl](const PipeWireStream::Picture& picture) { impl->received(picture); },
        [impl](const std::string& reason) { impl->endWith(reason); });
  } catch (const std::exception& error) {
    stop();
    throw CaptureError::captureFailed(error.what());
  }
  // Input follows the monitor on the screen.
  impl_->desktop->setInputSession(run->session);

  auto started = run->started.get_future();
  {
    std::lock_guard lock(impl_->mutex);
    auto* impl = impl_.get();
    impl_->thread = std::thread([impl, run] {
      try {
        impl->captureLoop(*run);
      } catch (const std::exception& error) {
        impl->fail(error.what());
      } catch (...) {
        impl->fail("unexpected failure");
      }
      // PipeWire's thread ends before the run's state goes; the session
      // closes with the run (input opens one of its own if it needs one).
      run->stream.reset();
      impl->desktop->releaseInputSession(run->session);
      run->session.reset();
    });
  }
  const std::string failure = started.get();
  if (!failure.empty()) {
    stop();
    throw CaptureError::captureFailed(failure);
  }
}

void MutterCaptureSource::stop() noexcept {
  std::thread thread;
  int token = 0;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->stopRequested = true;
    impl_->running = false;
    thread = std::move(impl_->thread);
    token = std::exchange(impl_->monitorsToken, 0);
    impl_->wake.notify_all();
  }
  if (token) impl_->desktop->removeMonitorsChanged(token);
  if (!thread.joinable()) return;
  // Stopped from inside a callback on the capture thread: it cannot join
  // itself; the next start or the destructor joins it.
  if (thread.get_id() == std::this_thread::get_id()) {
    std::lock_guard lock(impl_->mutex);
    impl_->thread = std::move(thread);
  } else {
    thread.join();
  }
}

std::optional<std::uint32_t> MutterCaptureSource::resolvedDisplayID() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->resolvedDisplayID;
}

}  // namespace zul
