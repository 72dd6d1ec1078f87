#pragma once

#include <cstdint>

namespace zul {

// A borrowed view of one NV12 picture (a luma plane, then interleaved
// half-resolution chroma), for handing pixels that live in a platform
// surface to a peer session. The session copies them before `push` returns.
struct Nv12Pixels {
  int width = 0;
  int height = 0;
  const std::uint8_t* luma = nullptr;
  int lumaStride = 0;
  const std::uint8_t* chroma = nullptr;
  int chromaStride = 0;
};

}  // namespace zul
