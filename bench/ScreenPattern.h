#pragma once

#include <array>
#include <cstdint>
#include <string>

namespace zul::test {

struct Rgb {
  std::uint8_t r = 0, g = 0, b = 0;
};

// A borderless window over the whole X screen painted in four quadrants
// (top left, top right, bottom left, bottom right), so that a test can tell
// what a viewer of the screen must see.
class ScreenPattern {
 public:
  explicit ScreenPattern(const std::string& display);
  ~ScreenPattern();
  ScreenPattern(const ScreenPattern&) = delete;
  ScreenPattern& operator=(const ScreenPattern&) = delete;

  // Paints the quadrants and waits until the server has done it.
  void show(const std::array<Rgb, 4>& quadrants);
  // Paints one small square (for latency probes) and waits for the server.
  void fillSquare(int x, int y, int size, Rgb colour);
  // A whole new screen: a page of large blocks in many colours (`seed`
  // picks which), painted in one go; waits for the server.
  void paintScreen(unsigned seed);
  // Two pages of text-like content: lines of small glyph-like blocks in dark
  // ink on white, left of the middle and right of it, beside a margin of
  // `margin` pixels that stays as it is; `seed` picks the text.
  void paintTextPages(unsigned seed, int margin);
  int width() const { return width_; }
  int height() const { return height_; }

 private:
  void* display_ = nullptr;  // Display*, kept out of the header
  unsigned long window_ = 0;
  void* gc_ = nullptr;
  int width_ = 0;
  int height_ = 0;
};

}  // namespace zul::test
