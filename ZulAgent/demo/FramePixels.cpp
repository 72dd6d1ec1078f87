#include "ZulAgent/demo/FramePixels.h"

#include "ZulPlatform/linux/capture/Nv12FrameSurface.h"

namespace zul {

std::optional<Nv12Pixels> nv12PixelsOf(const CapturedFrame& frame) {
  if (auto* surface = dynamic_cast<const Nv12FrameSurface*>(frame.nativeSurface.get())) {
    return Nv12Pixels{surface->planes(), frame.nativeSurface};
  }
  if (frame.pixelFormat != PixelFormat::nv12 || !frame.data || frame.width <= 0 ||
      frame.height <= 0 || frame.width > 16384 || frame.height > 16384) {
    return std::nullopt;
  }
  const int width = static_cast<int>(frame.width);
  const int height = static_cast<int>(frame.height);
  const std::size_t luma = static_cast<std::size_t>(width) * height;
  const int chromaStride = (width + 1) / 2 * 2;
  if (frame.data->size() < luma + static_cast<std::size_t>(chromaStride) * ((height + 1) / 2)) {
    return std::nullopt;
  }
  return Nv12Pixels{
      {width, height, frame.data->data(), width, frame.data->data() + luma, chromaStride},
      frame.data};
}

}  // namespace zul
