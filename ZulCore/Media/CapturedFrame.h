#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "ZulCore/Support/Bytes.h"

namespace zul {

enum class PixelFormat { bgra8, nv12 };

// A rectangle in pixels of the captured image.
struct RectPx {
  std::int64_t x = 0;
  std::int64_t y = 0;
  std::int64_t width = 0;
  std::int64_t height = 0;

  friend bool operator==(const RectPx&, const RectPx&) = default;
};

// A platform image handle that travels with a frame so that an encoder or the
// peer connection can take the pixels without a copy. `api` names the kind of
// handle ("x11-shm", "webrtc-frame", ...); implementations add typed access.
class NativeVideoSurface {
 public:
  virtual ~NativeVideoSurface() = default;
  virtual std::string api() const = 0;
};

// Pixels are shared and immutable, so copying a frame never copies them.
using FrameData = std::shared_ptr<const Bytes>;

struct CapturedFrame {
  std::int64_t sequence = 0;  // first frame of a capture run is 1
  std::chrono::system_clock::time_point capturedAt;
  std::int64_t width = 0;
  std::int64_t height = 0;
  PixelFormat pixelFormat = PixelFormat::nv12;
  FrameData data;  // null or empty when only `nativeSurface` carries the pixels
  std::vector<RectPx> dirtyRegions;
  bool isHdr = false;
  std::int64_t displayIndex = 0;
  std::shared_ptr<NativeVideoSurface> nativeSurface;

  std::size_t dataSize() const { return data ? data->size() : 0; }
};

}  // namespace zul
