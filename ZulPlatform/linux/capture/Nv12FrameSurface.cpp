#include "ZulPlatform/linux/capture/Nv12FrameSurface.h"

#include <cstdlib>
#include <new>

namespace zul {

Nv12FrameSurface::Nv12FrameSurface(int width, int height, Block block)
    : width_(width), height_(height), block_(std::move(block)) {}

Nv12FrameSurface::~Nv12FrameSurface() {
  if (block_.release) block_.release();
}

std::size_t Nv12FrameSurface::bytesFor(int width, int height) {
  const std::size_t w = width > 0 ? std::size_t(width) : 0;
  const std::size_t h = height > 0 ? std::size_t(height) : 0;
  return w * h + std::size_t((w + 1) / 2) * 2 * ((h + 1) / 2);
}

std::shared_ptr<Nv12FrameSurface> Nv12FrameSurface::allocate(int width, int height) {
  const std::size_t size = bytesFor(width, height);
  // 64-byte alignment suits libyuv's and the encoders' vector loads.
  auto* bytes = static_cast<std::uint8_t*>(std::aligned_alloc(64, (size + 63) / 64 * 64 + 64));
  if (!bytes) throw std::bad_alloc();
  return std::make_shared<Nv12FrameSurface>(width, height,
                                            Block{bytes, size, [bytes] { std::free(bytes); }});
}

}  // namespace zul
