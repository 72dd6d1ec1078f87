#include "ZulPlatform/linux/capture/DamageRects.h"

#include <algorithm>
#include <cmath>
#include <tuple>

namespace zul {
namespace {

// Rectangles closer than this are converted as one: the pixels between cost
// less than another pass over the rows.
constexpr std::int64_t nearby = 16;
// More rectangles than this after merging: their bounding box instead.
constexpr std::size_t mostRects = 16;
// Damage arriving in more rectangles than this is not merged one by one.
constexpr std::size_t mostToMerge = 256;

struct Box {
  std::int64_t left, top, right, bottom;  // right and bottom exclusive
  bool near(const Box& o) const {
    return left <= o.right + nearby && o.left <= right + nearby && top <= o.bottom + nearby &&
           o.top <= bottom + nearby;
  }
  void add(const Box& o) {
    left = std::min(left, o.left);
    top = std::min(top, o.top);
    right = std::max(right, o.right);
    bottom = std::max(bottom, o.bottom);
  }
};

}  // namespace

std::vector<RectPx> rectsToConvert(const std::vector<RectPx>& damage, int sourceWidth,
                                   int sourceHeight, int width, int height) {
  if (width <= 0 || height <= 0 || sourceWidth <= 0 || sourceHeight <= 0) return {};
  const bool scaled = sourceWidth != width || sourceHeight != height;
  const double sx = double(width) / sourceWidth, sy = double(height) / sourceHeight;
  const std::int64_t margin = scaled ? 2 : 0;
  std::vector<Box> boxes;
  boxes.reserve(std::min(damage.size(), mostToMerge + 1));
  for (const RectPx& r : damage) {
    if (r.width <= 0 || r.height <= 0) continue;
    Box b{std::int64_t(std::floor(double(r.x) * sx)) - margin,
          std::int64_t(std::floor(double(r.y) * sy)) - margin,
          std::int64_t(std::ceil(double(r.x + r.width) * sx)) + margin,
          std::int64_t(std::ceil(double(r.y + r.height) * sy)) + margin};
    b.left = std::max<std::int64_t>(b.left, 0) & ~std::int64_t(1);
    b.top = std::max<std::int64_t>(b.top, 0) & ~std::int64_t(1);
    b.right = std::min<std::int64_t>((b.right + 1) & ~std::int64_t(1), width);
    b.bottom = std::min<std::int64_t>((b.bottom + 1) & ~std::int64_t(1), height);
    if (b.left >= b.right || b.top >= b.bottom) continue;
    boxes.push_back(b);
  }
  if (boxes.empty()) return {};

  auto boundingBox = [&] {
    Box all = boxes.front();
    for (const Box& b : boxes) all.add(b);
    boxes = {all};
  };
  if (boxes.size() > mostToMerge) {
    boundingBox();
  } else {
    // Merge until no two are near each other; each merge removes one box.
    for (bool merged = true; merged;) {
      merged = false;
      for (std::size_t i = 0; i < boxes.size() && !merged; ++i) {
        for (std::size_t j = i + 1; j < boxes.size(); ++j) {
          if (!boxes[i].near(boxes[j])) continue;
          boxes[i].add(boxes[j]);
          boxes.erase(boxes.begin() + std::ptrdiff_t(j));
          merged = true;
          break;
        }
      }
    }
    if (boxes.size() > mostRects) boundingBox();
  }
  std::sort(boxes.begin(), boxes.end(),
            [](const Box& a, const Box& b) { return std::tie(a.top, a.left) < std::tie(b.top, b.left); });
  std::vector<RectPx> out;
  out.reserve(boxes.size());
  for (const Box& b : boxes) out.push_back({b.left, b.top, b.right - b.left, b.bottom - b.top});
  return out;
}

std::int64_t areaOf(const std::vector<RectPx>& rects) {
  std::int64_t area = 0;
  for (const RectPx& r : rects) area += r.width * r.height;
  return area;
}

}  // namespace zul
