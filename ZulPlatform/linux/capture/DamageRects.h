#pragma once

#include <vector>

#include "ZulCore/Media/CapturedFrame.h"

namespace zul {

// The parts of a `width` x `height` picture to convert again, from the
// rectangles that changed in the `sourceWidth` x `sourceHeight` screen it is
// made from: mapped to the picture's size (with a margin the scaler's filter
// reaches across), clipped to it, widened to even coordinates (a 4:2:0 chroma
// sample covers two by two pixels), and merged where they overlap or nearly
// touch. Many scattered rectangles (a page of text) become the box around
// them, so that each conversion call stays worth its cost. Empty damage
// gives nothing to convert.
std::vector<RectPx> rectsToConvert(const std::vector<RectPx>& damage, int sourceWidth,
                                   int sourceHeight, int width, int height);

// The area of the rectangles (which do not overlap after rectsToConvert).
std::int64_t areaOf(const std::vector<RectPx>& rects);

}  // namespace zul
