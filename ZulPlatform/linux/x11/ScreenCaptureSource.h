#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ZulCore/Media/CaptureSource.h"
#include "ZulCore/Media/DisplayDescriptor.h"

namespace zul {

// Captures one X11 monitor with WebRTC's desktop capture module (XShm reads
// limited by XDamage, the cursor drawn in) and hands out NV12 full-range
// frames whose pixels sit in an `Nv12FrameSurface`. The rules of capture are
// this class's: the monitor list, the requested size, the frame rate with an
// idle rate for a still screen, and at most one frame in the consumer's hands
// (later pictures are dropped, not queued, and do not advance `sequence`).
class ScreenCaptureSource : public CaptureSource {
 public:
  using CaptureFailed = std::function<void(const CaptureError&)>;
  using DisplaysChanged = std::function<void(const std::vector<DisplayDescriptor>& displays)>;
  // How long the screen read and the conversion to NV12 of a delivered frame
  // took (conversion zero for an idle repeat); for measurements.
  using CaptureTiming =
      std::function<void(std::chrono::nanoseconds read, std::chrono::nanoseconds convert)>;

  struct Statistics {
    std::int64_t captured = 0;   // pictures taken from the screen
    std::int64_t delivered = 0;  // frames handed to the consumer
    std::int64_t dropped = 0;    // due frames dropped because the consumer was busy
    std::int64_t converted = 0;  // frames converted (an idle repeat reuses the previous one)
  };

  // Empty `displayName`: $DISPLAY.
  explicit ScreenCaptureSource(std::string displayName = {});
  ~ScreenCaptureSource() override;
  ScreenCaptureSource(const ScreenCaptureSource&) = delete;
  ScreenCaptureSource& operator=(const ScreenCaptureSource&) = delete;

  // The monitors of the X display, in RandR's order, with `index` the
  // position. Throws CaptureError::platformUnsupported when the display
  // cannot be opened.
  static std::vector<DisplayDescriptor> availableDisplays(const std::string& displayName = {});
  // The id of the monitor RandR marks primary; nothing when none is. Throws
  // like availableDisplays.
  static std::optional<std::uint32_t> primaryDisplayID(const std::string& displayName = {});

  std::string name() const override { return "x11"; }
  void setFrameReady(FrameReady handler) override;
  // Called on the capture thread when the display goes away while capturing
  // (server gone; a monitor removed while nobody listens for display
  // changes); the source is stopped afterwards.
  void setCaptureFailed(CaptureFailed handler);
  // Called on the capture thread when the monitors change while capturing
  // (one added, removed, moved or resized), with the new list. Capture goes
  // on while its monitor is there; when it is gone, the run ends without a
  // captureFailed call, and the owner starts capture where it wants.
  void setDisplaysChanged(DisplaysChanged handler);
  // Called on the capture thread for each delivered frame.
  void setOnCaptureTiming(CaptureTiming handler);
  void start(const CaptureOptions& options) override;
  void stop() noexcept override;

  // The monitor the last start picked (its RandR name atom).
  std::optional<std::uint32_t> resolvedDisplayID() const;
  Statistics statistics() const;

  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace zul
