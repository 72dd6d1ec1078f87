#include "ZulAgent/CaptureGeometry.h"

#include <algorithm>

namespace zul {

CaptureSize captureSizeFor(const DisplayDescriptor& display) {
  if (display.width <= 0 || display.height <= 0) return {maxCaptureWidth, maxCaptureHeight};
  const double scale = std::min({double(maxCaptureWidth) / double(display.width),
                                 double(maxCaptureHeight) / double(display.height), 1.0});
  auto even = [](double side) { return std::max<std::int64_t>(2, std::int64_t(side) & ~1LL); };
  return {even(double(display.width) * scale), even(double(display.height) * scale)};
}

VideoMapping videoMappingFor(const DisplayDescriptor& display) {
  const CaptureSize size = captureSizeFor(display);
  return {DesktopRect::of(display), double(size.width), double(size.height)};
}

}  // namespace zul
