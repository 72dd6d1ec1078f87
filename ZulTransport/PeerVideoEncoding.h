#pragma once

#include <functional>
#include <memory>
#include <string>

#include "ZulCore/Media/FrameRateChoice.h"
#include "ZulCore/Media/VideoEncoder.h"

namespace zul {

// Which H.264 encoder a peer session's video track uses. With a maker, the
// session offers H.264 Constrained Baseline (packetization
// mode 1) first and encodes with a fresh encoder from it, fed with the pushed
// NV12 pixels as they are; WebRTC's own OpenH264 steps in only when that
// encoder cannot start or fails, and `print` gets a line saying so (and one
// naming the encoder that runs). Without a maker the library's encoders run.
struct PeerVideoEncoding {
  std::function<std::unique_ptr<VideoEncoder>()> makeEncoder;
  std::function<void(const std::string&)> print;
  // The frame rate the source pushes at, shared with capture: the encoder
  // tells it how long each frame took, and its line says the rates it runs
  // at. None: the encoder's own rate, not adapted.
  std::shared_ptr<FrameRateChoice> frameRate;
};

}  // namespace zul
