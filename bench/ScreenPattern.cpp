#include "ScreenPattern.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <stdexcept>

namespace zul::test {
namespace {

unsigned long pixelOf(Rgb c) {
  return static_cast<unsigned long>(c.r) << 16 | static_cast<unsigned long>(c.g) << 8 | c.b;
}

}  // namespace

ScreenPattern::ScreenPattern(const std::string& displayName) {
  Display* display = XOpenDisplay(displayName.c_str());
  if (!display) throw std::runtime_error("cannot open display " + displayName);
  display_ = display;
  const int screen = DefaultScreen(display);
  width_ = DisplayWidth(display, screen);
  height_ = DisplayHeight(display, screen);
  XSetWindowAttributes attributes{};
  attributes.override_redirect = True;
  attributes.background_pixel = BlackPixel(display, screen);
  window_ =
      XCreateWindow(display, RootWindow(display, screen), 0, 0, width_, height_, 0, CopyFromParent,
                    InputOutput, CopyFromParent, CWOverrideRedirect | CWBackPixel, &attributes);
  XMapRaised(display, window_);
  gc_ = XCreateGC(display, window_, 0, nullptr);
  XSync(display, False);
}

ScreenPattern::~ScreenPattern() {
  auto* display = static_cast<Display*>(display_);
  XFreeGC(display, static_cast<GC>(gc_));
  XDestroyWindow(display, window_);
  XCloseDisplay(display);
}

void ScreenPattern::show(const std::array<Rgb, 4>& quadrants) {
  auto* display = static_cast<Display*>(display_);
  auto* gc = static_cast<GC>(gc_);
  const int w = width_ / 2;
  const int h = height_ / 2;
  for (int i = 0; i < 4; ++i) {
    XSetForeground(display, gc, pixelOf(quadrants[i]));
    XFillRectangle(display, window_, gc, (i % 2) * w, (i / 2) * h, width_ - w, height_ - h);
  }
  XSync(display, False);
}

void ScreenPattern::fillSquare(int x, int y, int size, Rgb colour) {
  auto* display = static_cast<Display*>(display_);
  auto* gc = static_cast<GC>(gc_);
  XSetForeground(display, gc, pixelOf(colour));
  XFillRectangle(display, window_, gc, x, y, size, size);
  XSync(display, False);
}

}  // namespace zul::test
