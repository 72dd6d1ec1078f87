#pragma once

#include <cstdint>
#include <memory>

namespace zul {

// A view of one NV12 picture (a luma plane, then interleaved half-resolution
// chroma), for handing pixels that live in a platform surface to a peer
// session. Without an `owner` the session copies them before `push` returns;
// with one it keeps the owner instead and the encoder reads them in place, so
// they must not change while it is held.
struct Nv12Pixels {
  int width = 0;
  int height = 0;
  const std::uint8_t* luma = nullptr;
  int lumaStride = 0;
  const std::uint8_t* chroma = nullptr;
  int chromaStride = 0;
  std::shared_ptr<const void> owner;
};

}  // namespace zul
