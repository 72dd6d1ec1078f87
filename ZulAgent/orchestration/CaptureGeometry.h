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

inline constexpr std::int64_t maxCaptureWidth = 1920;
inline constexpr std::int64_t maxCaptureHeight = 1080;

// Frames per second while the screen changes, unless ZUL_MAX_FPS asks for
// another rate up to the highest; the lower rate while encoding a frame takes
// longer than that rate allows; a still screen sends the idle rate.
inline constexpr std::int64_t defaultFramesPerSecond = 60;
inline constexpr std::int64_t lowerFramesPerSecond = 30;
inline constexpr std::int64_t highestFramesPerSecond = 60;
inline constexpr std::int64_t idleFramesPerSecond = 2;

// A ZUL_MAX_FPS value: a whole number of frames per second, capped at the
// highest; the default when unset, not a number or below 1.
std::int64_t framesPerSecondFrom(const char* text);

// The display's shape inside maxCaptureWidth x maxCaptureHeight, never
// larger than the display, with even sides (4:2:0 video); the largest size
// for a display without a size.
CaptureSize captureSizeFor(const DisplayDescriptor& display);

// The display's desktop rectangle under a video of captureSizeFor(display).
VideoMapping videoMappingFor(const DisplayDescriptor& display);
// The same video over the display in applications' own coordinates, which
// the scene's rectangles are read in (a scaled monitor's logical pixels).
VideoMapping sceneMappingFor(const DisplayDescriptor& display);

}  // namespace zul
