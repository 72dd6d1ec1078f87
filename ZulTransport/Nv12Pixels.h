#pragma once

#include <memory>

#include "ZulCore/Media/Nv12Surface.h"

namespace zul {

// One NV12 picture's planes, for handing pixels that live in a platform
// surface to a peer session. Without an `owner` the session copies them before
// `push` returns; with one it keeps the owner instead and the encoder reads
// them in place, so they must not change while it is held.
struct Nv12Pixels : Nv12PlaneView {
  std::shared_ptr<const void> owner;
};

}  // namespace zul
