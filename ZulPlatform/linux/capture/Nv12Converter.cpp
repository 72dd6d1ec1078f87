#include "ZulPlatform/linux/capture/Nv12Converter.h"

#include <libyuv/convert_from_argb.h>
#include <libyuv/planar_functions.h>
#include <libyuv/scale_argb.h>

namespace zul {

void Nv12Converter::convert(const std::uint8_t* pixels, int stride, int width, int height,
                            bool rgbOrder, Nv12FrameSurface& out) {
  if (rgbOrder) {
    // RGBx is libyuv's "ABGR".
    reordered_.resize(std::size_t(width) * height * 4);
    libyuv::ABGRToARGB(pixels, stride, reordered_.data(), width * 4, width, height);
    pixels = reordered_.data();
    stride = width * 4;
  }
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

}  // namespace zul
