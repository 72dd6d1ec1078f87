#pragma once

#include <cstdint>

#include "ZulCore/Input/VideoMapping.h"
#include "ZulCore/Media/DisplayDescriptor.h"

namespace zul {

// The agent's video of one display: the size it is captured at, and how
// video pixels (the phone's taps, the scene's rectangles) map onto the
// display. Pointer executor, scene publisher and capture all take it from
// here, so that they agree for any capture size and any display origin.
struct CaptureSize {
  std::int64_t width = 0;
  std::int64_t height = 0;
  friend bool operator==(const CaptureSize&, const CaptureSize&) = default;
};

inline constexpr std::int64_t maxCaptureWidth = 1280;
inline constexpr std::int64_t maxCaptureHeight = 720;

// The display's shape inside maxCaptureWidth x maxCaptureHeight, never
// larger than the display, with even sides (4:2:0 video); the largest size
// for a display without a size.
CaptureSize captureSizeFor(const DisplayDescriptor& display);

// The display's desktop rectangle under a video of captureSizeFor(display).
VideoMapping videoMappingFor(const DisplayDescriptor& display);

}  // namespace zul
