#pragma once

#include <optional>

#include "ZulCore/Media/CapturedFrame.h"
#include "ZulTransport/Nv12Pixels.h"

namespace zul {

// The NV12 pixels of a captured frame, wherever they live: in the screen
// capture source's surface or in the frame's own data. Nothing when the frame
// carries another format (the peer sessions then read `data` themselves).
// The view holds what keeps the pixels alive, so a peer session may keep
// them rather than copy them.
std::optional<Nv12Pixels> nv12PixelsOf(const CapturedFrame& frame);

}  // namespace zul
