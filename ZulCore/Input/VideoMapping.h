#pragma once

#include <algorithm>
#include <cmath>
#include <cstdlib>

#include "ZulCore/Input/DesktopRect.h"

namespace zul {

// One captured display as the phone sees it: the display's rectangle on the
// desktop, stretched to the video's size. The phone taps in video pixels and
// reads scene rectangles in them, so pointer and scene both go through this
// one mapping, whatever the capture size and wherever the display lies.
struct VideoMapping {
  DesktopRect display;  // desktop pixels
  double videoWidth = 0;
  double videoHeight = 0;

  VideoMapping() = default;
  VideoMapping(const DesktopRect& display, double videoWidth, double videoHeight)
      : display(display), videoWidth(videoWidth), videoHeight(videoHeight) {}

  // A video as large as the display: video pixels are desktop pixels.
  static VideoMapping unscaled(const DesktopRect& display) {
    return {display, display.width, display.height};
  }

  // A point of the video on the desktop, clamped to the display so that a
  // tap never lands on a neighbouring one. A zero video side counts as 1.
  DesktopPoint toDesktop(double videoX, double videoY) const {
    const DesktopRect& b = display;
    // A real display is at least one pixel wide and high.
    if (!(b.width >= 1 && b.height >= 1)) std::abort();
    double x = b.minX() + (b.width / std::max(videoWidth, 1.0)) * videoX;
    double y = b.minY() + (b.height / std::max(videoHeight, 1.0)) * videoY;
    if (!(x > b.minX())) x = b.minX();
    if (x > b.maxX() - 1) x = b.maxX() - 1;
    if (!(y > b.minY())) y = b.minY();
    if (y > b.maxY() - 1) y = b.maxY() - 1;
    return {x, y};
  }

  // A desktop rectangle in video pixels from the video's top-left corner.
  // Edges are rounded to whole pixels, so that the middle of the integer
  // rectangle the phone receives stays within a pixel of the true middle.
  DesktopRect toVideo(const DesktopRect& rect) const {
    const double sx = display.width > 0 && videoWidth > 0 ? videoWidth / display.width : 1.0;
    const double sy = display.height > 0 && videoHeight > 0 ? videoHeight / display.height : 1.0;
    const double left = std::round((rect.minX() - display.x) * sx);
    const double top = std::round((rect.minY() - display.y) * sy);
    const double right = std::round((rect.maxX() - display.x) * sx);
    const double bottom = std::round((rect.maxY() - display.y) * sy);
    return {left, top, right - left, bottom - top};
  }

  friend bool operator==(const VideoMapping&, const VideoMapping&) = default;
};

}  // namespace zul
