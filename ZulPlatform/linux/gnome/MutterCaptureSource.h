#pragma once

#include <memory>

#include "ZulPlatform/linux/DesktopBackend.h"
#include "ZulPlatform/linux/gnome/MutterDesktop.h"

namespace zul {

// Captures one monitor of a GNOME Wayland session: a mutter remote-desktop
// session records it (cursor drawn in) and the PipeWire stream it announces
// brings the pictures, which become NV12 full-range frames at the requested
// size. The rules are those of the X11 source: the display list, the frame
// rate with an idle rate for a still screen (mutter sends nothing while
// nothing changes, so the last picture is handed out again), and at most
// one frame in the consumer's hands (pictures arriving meanwhile replace
// each other; `sequence` has no gaps). Input goes through the same session.
class MutterCaptureSource final : public DesktopCaptureSource {
 public:
  explicit MutterCaptureSource(std::shared_ptr<MutterDesktop> desktop);
  ~MutterCaptureSource() override;
  MutterCaptureSource(const MutterCaptureSource&) = delete;
  MutterCaptureSource& operator=(const MutterCaptureSource&) = delete;

  std::string name() const override { return "gnome"; }
  void setFrameReady(FrameReady handler) override;
  void setCaptureFailed(CaptureFailed handler) override;
  void setDisplaysChanged(DisplaysChanged handler) override;
  // Returns once the first picture arrived; throws CaptureError.
  void start(const CaptureOptions& options) override;
  void stop() noexcept override;
  std::optional<std::uint32_t> resolvedDisplayID() const override;

  struct Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace zul
