#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "ZulCore/Media/CapturedFrame.h"
#include "ZulCore/Media/FrameRateChoice.h"
#include "ZulCore/Support/Error.h"

namespace zul {

struct CaptureOptions {
  std::int64_t displayIndex = 0;  // 0 = first display
  std::int64_t width = 0;
  std::int64_t height = 0;
  std::int64_t framesPerSecond = 0;      // while the screen changes
  std::int64_t idleFramesPerSecond = 0;  // while nothing changes
  // When set, the rate while the screen changes follows it as the encoder
  // keeps up or falls behind, never above framesPerSecond.
  std::shared_ptr<const FrameRateChoice> adaptiveRate;
};

class CaptureError : public Error {
 public:
  enum class Case {
    displayUnavailable,
    platformUnsupported,
    alreadyRunning,
    notRunning,
    screenRecordingPermissionDenied,
    captureFailed,  // the display went away while capturing (e.g. the X server died)
  };

  static CaptureError displayUnavailable(std::int64_t index);
  static CaptureError platformUnsupported(std::string reason);
  static CaptureError alreadyRunning();
  static CaptureError notRunning();
  static CaptureError screenRecordingPermissionDenied();
  static CaptureError captureFailed(std::string reason);

  Case kind() const { return kind_; }
  std::int64_t index() const { return index_; }
  const std::string& reason() const { return reason_; }

  friend bool operator==(const CaptureError& a, const CaptureError& b) {
    return a.kind_ == b.kind_ && a.index_ == b.index_ && a.reason_ == b.reason_;
  }

 private:
  CaptureError(Case kind, std::string text, std::int64_t index = 0, std::string reason = {})
      : Error(std::move(text)), kind_(kind), index_(index), reason_(std::move(reason)) {}

  Case kind_;
  std::int64_t index_;
  std::string reason_;
};

// A source of screen frames. Implementations guard their own state: they are
// called from their owner's threads and call `frameReady` from their own.
class CaptureSource {
 public:
  // Called once per produced frame, on the source's thread; may block, which
  // holds back the next frame rather than queueing it.
  using FrameReady = std::function<void(const CapturedFrame&)>;

  virtual ~CaptureSource() = default;

  // Short fixed identifier of the implementation, used in log lines.
  virtual std::string name() const = 0;
  // Set before `start`.
  virtual void setFrameReady(FrameReady handler) = 0;
  // Returns once frames have begun to flow; throws CaptureError.
  virtual void start(const CaptureOptions& options) = 0;
  // After it returns no new frame is delivered; never throws, idempotent.
  virtual void stop() noexcept = 0;
};

}  // namespace zul
