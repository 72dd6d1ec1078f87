#pragma once

#include <X11/Xlib.h>

#include <cstdint>
#include <stdexcept>
#include <string>
#include <utility>

namespace zul::test {

// Draws straight onto the root window and holds a connection, which also
// keeps the server from resetting (and forgetting its RandR monitors).
class ScreenPainter {
 public:
  explicit ScreenPainter(const std::string& display) : x_(XOpenDisplay(display.c_str())) {
    if (!x_) throw std::runtime_error("cannot open " + display);
    gc_ = XCreateGC(x_, DefaultRootWindow(x_), 0, nullptr);
    // The cursor is drawn in: keep it out of what the tests look at.
    XWarpPointer(x_, None, DefaultRootWindow(x_), 0, 0, 0, 0, 10000, 10000);
    XSync(x_, False);
  }
  ~ScreenPainter() {
    XFreeGC(x_, gc_);
    XCloseDisplay(x_);
  }
  void fill(int x, int y, int width, int height, unsigned rgb) {
    XSetForeground(x_, gc_, rgb);
    XFillRectangle(x_, DefaultRootWindow(x_), gc_, x, y, unsigned(width), unsigned(height));
    XSync(x_, False);
  }
  std::uint32_t atom(const std::string& name) {
    return std::uint32_t(XInternAtom(x_, name.c_str(), False));
  }
  std::pair<int, int> pointer() {
    Window root, child;
    int x = 0, y = 0, wx = 0, wy = 0;
    unsigned mask = 0;
    XQueryPointer(x_, DefaultRootWindow(x_), &root, &child, &x, &y, &wx, &wy, &mask);
    return {x, y};
  }
  // What the X server holds down: "button 1", "key 37", ...; empty when
  // nothing is.
  std::string pressed() {
    Window root, child;
    int x = 0, y = 0, wx = 0, wy = 0;
    unsigned mask = 0;
    XQueryPointer(x_, DefaultRootWindow(x_), &root, &child, &x, &y, &wx, &wy, &mask);
    std::string out;
    for (unsigned button = 1; button <= 5; ++button) {
      if (mask & (Button1Mask << (button - 1))) out += "button " + std::to_string(button) + " ";
    }
    char keys[32];
    XQueryKeymap(x_, keys);
    for (int code = 0; code < 256; ++code) {
      if (keys[code / 8] & (1 << (code % 8))) out += "key " + std::to_string(code) + " ";
    }
    return out;
  }

 private:
  Display* x_;
  GC gc_;
};

}  // namespace zul::test
