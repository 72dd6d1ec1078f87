#pragma once

#include <cstdint>

#include "ZulCore/Media/CapturedFrame.h"

namespace zul {

// Where one NV12 picture's planes are: a luma plane, then interleaved
// half-resolution chroma.
struct Nv12PlaneView {
  int width = 0;
  int height = 0;
  const std::uint8_t* luma = nullptr;
  int lumaStride = 0;
  const std::uint8_t* chroma = nullptr;
  int chromaStride = 0;
};

// A surface whose pixels are NV12 in memory, wherever they come from (the
// screen capture, the peer connection's frame): an encoder reads them in place
// for as long as it holds the surface.
class Nv12Surface : public NativeVideoSurface {
 public:
  virtual Nv12PlaneView planes() const = 0;
};

}  // namespace zul
