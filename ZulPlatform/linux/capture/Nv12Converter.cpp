#include "ZulPlatform/linux/capture/Nv12Converter.h"

#include <libyuv/convert_from_argb.h>
#include <libyuv/planar_functions.h>
#include <libyuv/scale_argb.h>

namespace zul {

void Nv12Converter::toBgrOrder(const std::uint8_t*& pixels, int& stride, int width, int height) {
  // RGBx is libyuv's "ABGR".
  reordered_.resize(std::size_t(width) * height * 4);
  libyuv::ABGRToARGB(pixels, stride, reordered_.data(), width * 4, width, height);
  pixels = reordered_.data();
  stride = width * 4;
}

void Nv12Converter::convert(const std::uint8_t* pixels, int stride, int width, int height,
                            bool rgbOrder, Nv12FrameSurface& out) {
  if (rgbOrder) toBgrOrder(pixels, stride, width, height);
  const int outWidth = out.width(), outHeight = out.height();
  if (width != outWidth || height != outHeight) {
    scaled_.resize(std::size_t(outWidth) * outHeight * 4);
    libyuv::ARGBScale(pixels, stride, width, height, scaled_.data(), outWidth * 4, outWidth,
                      outHeight, libyuv::kFilterBilinear);
    pixels = scaled_.data();
    stride = outWidth * 4;
  }
  const int chromaWidth = out.chromaWidth(), chromaHeight = out.chromaHeight();
  u_.resize(std::size_t(chromaWidth) * chromaHeight);
  v_.resize(u_.size());
  libyuv::ARGBToJ420(pixels, stride, out.luma(), out.lumaStride(), u_.data(), chromaWidth,
                     v_.data(), chromaWidth, outWidth, outHeight);
  libyuv::MergeUVPlane(u_.data(), chromaWidth, v_.data(), chromaWidth, out.chroma(),
                       out.chromaStride(), chromaWidth, chromaHeight);
}

void Nv12Converter::convertRects(const std::uint8_t* pixels, int stride, int width, int height,
                                 bool rgbOrder, Nv12FrameSurface& out,
                                 const std::vector<RectPx>& rects) {
  if (rects.empty()) return;
  if (rgbOrder) toBgrOrder(pixels, stride, width, height);
  const int outWidth = out.width(), outHeight = out.height();
  const bool scaled = width != outWidth || height != outHeight;
  if (scaled) scaled_.resize(std::size_t(outWidth) * outHeight * 4);
  for (const RectPx& rect : rects) {
    if (scaled) {
      libyuv::ARGBScaleClip(pixels, stride, width, height, scaled_.data(), outWidth * 4, outWidth,
                            outHeight, int(rect.x), int(rect.y), int(rect.width), int(rect.height),
                            libyuv::kFilterBilinear);
      convertRect(scaled_.data(), outWidth * 4, rect, out);
    } else {
      convertRect(pixels, stride, rect, out);
    }
  }
}

void Nv12Converter::convertRect(const std::uint8_t* pixels, int stride, const RectPx& rect,
                                Nv12FrameSurface& out) {
  const int x = int(rect.x), y = int(rect.y), w = int(rect.width), h = int(rect.height);
  const int chromaWidth = (w + 1) / 2, chromaHeight = (h + 1) / 2;
  u_.resize(std::size_t(chromaWidth) * chromaHeight);
  v_.resize(u_.size());
  libyuv::ARGBToJ420(pixels + std::size_t(y) * stride + std::size_t(x) * 4, stride,
                     out.luma() + std::size_t(y) * out.lumaStride() + x, out.lumaStride(),
                     u_.data(), chromaWidth, v_.data(), chromaWidth, w, h);
  libyuv::MergeUVPlane(
      u_.data(), chromaWidth, v_.data(), chromaWidth,
      out.chroma() + std::size_t(y / 2) * out.chromaStride() + std::size_t(x / 2) * 2,
      out.chromaStride(), chromaWidth, chromaHeight);
}

}  // namespace zul
