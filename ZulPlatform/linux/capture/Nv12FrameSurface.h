#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "ZulCore/Media/Nv12Surface.h"

namespace zul {

// Pixels of one captured picture in NV12 (a luma plane, then interleaved
// half-resolution chroma), full range. The screen capture source converts each
// picture straight into one of these and the encoder reads it in place, so the
// pixels are never copied between the two.
class Nv12FrameSurface : public Nv12Surface {
 public:
  // Memory for a surface; `release` runs once the last user lets go (a pool
  // takes the block back).
  struct Block {
    std::uint8_t* bytes = nullptr;
    std::size_t size = 0;
    std::function<void()> release;
  };

  Nv12FrameSurface(int width, int height, Block block);
  ~Nv12FrameSurface() override;
  Nv12FrameSurface(const Nv12FrameSurface&) = delete;
  Nv12FrameSurface& operator=(const Nv12FrameSurface&) = delete;

  // Bytes needed for a `width` x `height` picture in this layout.
  static std::size_t bytesFor(int width, int height);
  // A surface over a fresh heap block, for callers without a pool.
  static std::shared_ptr<Nv12FrameSurface> allocate(int width, int height);

  std::string api() const override { return "nv12-memory"; }
  Nv12PlaneView planes() const override {
    return {width_, height_, luma(), lumaStride(), chroma(), chromaStride()};
  }

  int width() const { return width_; }
  int height() const { return height_; }
  std::uint8_t* luma() const { return block_.bytes; }
  int lumaStride() const { return width_; }
  std::uint8_t* chroma() const { return block_.bytes + std::size_t(width_) * height_; }
  int chromaStride() const { return chromaWidth() * 2; }
  int chromaWidth() const { return (width_ + 1) / 2; }
  int chromaHeight() const { return (height_ + 1) / 2; }

 private:
  int width_;
  int height_;
  Block block_;
};

}  // namespace zul
