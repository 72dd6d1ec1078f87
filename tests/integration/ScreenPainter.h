#pragma once

#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>

#include <stdexcept>
#include <string>

namespace zul::test {

// Draws straight onto the root window of a test X server (no window manager
// needed) and holds a connection, which also keeps the server from resetting
// (and forgetting its RandR monitors) when other clients leave.
class ScreenPainter {
 public:
  explicit ScreenPainter(const std::string& display) : display_(XOpenDisplay(display.c_str())) {
    if (!display_) throw std::runtime_error("cannot open " + display);
    gc_ = XCreateGC(display_, root(), 0, nullptr);
  }
  ~ScreenPainter() {
    XFreeGC(display_, gc_);
    XCloseDisplay(display_);
  }
  ScreenPainter(const ScreenPainter&) = delete;
  ScreenPainter& operator=(const ScreenPainter&) = delete;

  Window root() const { return DefaultRootWindow(display_); }

  void fill(int x, int y, int width, int height, unsigned rgb) {
    XSetForeground(display_, gc_, rgb);
    XFillRectangle(display_, root(), gc_, x, y, unsigned(width), unsigned(height));
    XSync(display_, False);
  }
  // Parks the pointer where it cannot cover what a test looks at.
  void movePointer(int x, int y) {
    XWarpPointer(display_, None, root(), 0, 0, 0, 0, x, y);
    XSync(display_, False);
  }
  unsigned long atom(const std::string& name) { return XInternAtom(display_, name.c_str(), False); }

 private:
  Display* display_;
  GC gc_;
};

// The full-range BT.601 values of an RGB colour, as the capture produces them.
struct Yuv {
  int y, u, v;
};
inline Yuv fullRangeYuv(unsigned rgb) {
  const double r = (rgb >> 16) & 0xff, g = (rgb >> 8) & 0xff, b = rgb & 0xff;
  auto clamp = [](double value) { return value < 0 ? 0 : value > 255 ? 255 : int(value + 0.5); };
  return {clamp(0.299 * r + 0.587 * g + 0.114 * b),
          clamp(128 - 0.168736 * r - 0.331264 * g + 0.5 * b),
          clamp(128 + 0.5 * r - 0.418688 * g - 0.081312 * b)};
}

}  // namespace zul::test
