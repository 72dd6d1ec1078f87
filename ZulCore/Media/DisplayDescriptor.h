#pragma once

#include <cstdint>
#include <string>

namespace zul {

// One capturable display. Geometry is in the desktop's global coordinates
// (on X11: pixels of the root window; a monitor left of or above the primary
// one has a negative origin).
struct DisplayDescriptor {
  std::int64_t index = 0;       // what CaptureOptions::displayIndex selects
  std::uint32_t displayID = 0;  // the platform's id (on X11: the RandR monitor's name atom)
  std::int64_t width = 0;
  std::int64_t height = 0;
  std::int64_t originX = 0;
  std::int64_t originY = 0;
  double scale = 1.0;  // desktop pixels per logical pixel (GNOME's fractional scaling)
  // Desktop pixels per pixel of what applications report of themselves
  // (their accessibility rectangles): the scale where the desktop counts in
  // physical pixels (mutter's physical layout), else 1.
  double elementScale = 1.0;
  std::string name;  // the platform's name for it ("DP-1"), empty when it has none

  friend bool operator==(const DisplayDescriptor&, const DisplayDescriptor&) = default;
};

}  // namespace zul
