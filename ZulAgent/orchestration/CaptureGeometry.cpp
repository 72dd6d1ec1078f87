#include "ZulAgent/orchestration/CaptureGeometry.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>

namespace zul {

CaptureSize captureSizeFor(const DisplayDescriptor& display) {
  if (display.width <= 0 || display.height <= 0) return {maxCaptureWidth, maxCaptureHeight};
  const double scale = std::min({double(maxCaptureWidth) / double(display.width),
                                 double(maxCaptureHeight) / double(display.height), 1.0});
  auto even = [](double side) { return std::max<std::int64_t>(2, std::int64_t(side) & ~1LL); };
  return {even(double(display.width) * scale), even(double(display.height) * scale)};
}

std::int64_t framesPerSecondFrom(const char* text) {
  if (!text || !*text) return defaultFramesPerSecond;
  char* end = nullptr;
  errno = 0;
  const long long value = std::strtoll(text, &end, 10);
  if (errno == ERANGE && value > 0) return highestFramesPerSecond;
  if (errno != 0 || !end || *end != '\0' || value < 1) return defaultFramesPerSecond;
  return std::min<std::int64_t>(value, highestFramesPerSecond);
}

VideoMapping videoMappingFor(const DisplayDescriptor& display) {
  const CaptureSize size = captureSizeFor(display);
  return {DesktopRect::of(display), double(size.width), double(size.height)};
}

VideoMapping sceneMappingFor(const DisplayDescriptor& display) {
  VideoMapping mapping = videoMappingFor(display);
  const double scale = display.elementScale > 0 ? display.elementScale : 1.0;
  DesktopRect& bounds = mapping.display;
  bounds = {bounds.x / scale, bounds.y / scale, bounds.width / scale, bounds.height / scale};
  return mapping;
}

}  // namespace zul
