#pragma once

#include "ZulCore/Media/DisplayDescriptor.h"

namespace zul {

// A rectangle in the desktop's global coordinates (on X11: root-window
// pixels), the space in which displays, pointer positions and accessible
// elements' extents are expressed.
struct DesktopRect {
  double x = 0;
  double y = 0;
  double width = 0;
  double height = 0;

  double minX() const { return x; }
  double minY() const { return y; }
  double maxX() const { return x + width; }
  double maxY() const { return y + height; }

  static DesktopRect of(const DisplayDescriptor& display) {
    return {static_cast<double>(display.originX), static_cast<double>(display.originY),
            static_cast<double>(display.width), static_cast<double>(display.height)};
  }

  friend bool operator==(const DesktopRect&, const DesktopRect&) = default;
};

struct DesktopPoint {
  double x = 0;
  double y = 0;
  friend bool operator==(const DesktopPoint&, const DesktopPoint&) = default;
};

}  // namespace zul
