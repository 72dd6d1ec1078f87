#pragma once

#include <string>
#include <vector>

#include "ZulCore/Media/CaptureSource.h"
#include "ZulCore/Media/DisplayDescriptor.h"
#include "ZulCore/Support/Callback.h"

namespace zul {

// The owner's callbacks of a capture source: set from any thread, called on
// the source's threads outside its lock; an owner's exception never takes a
// capture thread down.
struct CaptureCallbacks {
  Callback<const CapturedFrame&> frameReady;
  Callback<const CaptureError&> captureFailed;
  Callback<const std::vector<DisplayDescriptor>& /*displays*/> displaysChanged;

  void reportFailure(const std::string& reason) {
    captureFailed(CaptureError::captureFailed(reason));
  }
  // False when no owner follows monitor changes.
  bool reportDisplays(const std::vector<DisplayDescriptor>& displays) {
    if (!displaysChanged) return false;
    displaysChanged(displays);
    return true;
  }
  // A frame to the consumer taken under the source's lock (frameReady.handler()).
  static void deliver(const CaptureSource::FrameReady& handler, const CapturedFrame& frame) {
    if (!handler) return;
    try {
      handler(frame);
    } catch (...) {
      // the owner's failure is its own; capture goes on
    }
  }
};

}  // namespace zul
