#include "ScreenPattern.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <random>
#include <stdexcept>
#include <vector>

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

void ScreenPattern::paintScreen(unsigned seed) {
  auto* display = static_cast<Display*>(display_);
  auto* gc = static_cast<GC>(gc_);
  std::mt19937 random(seed);
  XSetForeground(display, gc, random() & 0xffffff);
  XFillRectangle(display, window_, gc, 0, 0, width_, height_);
  for (int i = 0; i < 300; ++i) {
    const int w = 40 + int(random() % 360), h = 20 + int(random() % 200);
    XSetForeground(display, gc, random() & 0xffffff);
    XFillRectangle(display, window_, gc, int(random() % unsigned(width_)) - w / 2,
                   int(random() % unsigned(height_)) - h / 2, w, h);
  }
  XSync(display, False);
}

void ScreenPattern::paintTextPages(unsigned seed, int margin) {
  auto* display = static_cast<Display*>(display_);
  auto* gc = static_cast<GC>(gc_);
  std::mt19937 random(seed);
  XSetForeground(display, gc, 0xffffff);
  XFillRectangle(display, window_, gc, margin, 0, width_ - margin, height_);
  std::vector<XRectangle> glyphs;
  const int pageWidth = (width_ - margin) / 2 - 24;
  for (int page = 0; page < 2; ++page) {
    const int left = margin + 12 + page * (pageWidth + 24);
    for (int y = 16; y + 12 < height_ - 8; y += 18) {
      for (int x = left; x < left + pageWidth - 10;) {
        const int letters = 2 + int(random() % 8);
        for (int l = 0; l < letters && x < left + pageWidth - 10; ++l) {
          const int w = 5 + int(random() % 4), h = 7 + int(random() % 5);
          glyphs.push_back({short(x), short(y + 11 - h), static_cast<unsigned short>(w),
                            static_cast<unsigned short>(h)});
          x += w + 2;
        }
        x += 6;
      }
    }
  }
  XSetForeground(display, gc, 0x202020);
  for (std::size_t at = 0; at < glyphs.size(); at += 4000) {
    XFillRectangles(display, window_, gc, glyphs.data() + at,
                    int(std::min<std::size_t>(4000, glyphs.size() - at)));
  }
  XSync(display, False);
}

}  // namespace zul::test
