#pragma once

#include <cstdint>
#include <vector>

#include "ZulCore/Media/CapturedFrame.h"
#include "ZulPlatform/linux/capture/Nv12FrameSurface.h"

namespace zul {

// 32-bit pixels at any size into a full-range NV12 surface of its own size;
// scales first when the sizes differ. Keeps its scratch buffers between
// calls, so one converter serves one capture thread.
class Nv12Converter {
 public:
  // `pixels`: B, G, R, x in memory (libyuv's "ARGB"), or R, G, B, x when
  // `rgbOrder`.
  void convert(const std::uint8_t* pixels, int stride, int width, int height, bool rgbOrder,
               Nv12FrameSurface& out);
  // Converts only `rects` (in `out`'s pixels, at even coordinates, inside
  // it, as rectsToConvert gives them); `out` holds the conversion of the
  // previous picture everywhere else.
  void convertRects(const std::uint8_t* pixels, int stride, int width, int height, bool rgbOrder,
                    Nv12FrameSurface& out, const std::vector<RectPx>& rects);

 private:
  // Points `pixels` at a copy in BGRx order (libyuv's "ARGB") of an RGBx picture.
  void toBgrOrder(const std::uint8_t*& pixels, int& stride, int width, int height);
  // One rectangle of 32-bit pixels at the output's size into `out`.
  void convertRect(const std::uint8_t* pixels, int stride, const RectPx& rect,
                   Nv12FrameSurface& out);

  std::vector<std::uint8_t> reordered_;
  std::vector<std::uint8_t> scaled_;
  std::vector<std::uint8_t> u_;
  std::vector<std::uint8_t> v_;
};

}  // namespace zul
