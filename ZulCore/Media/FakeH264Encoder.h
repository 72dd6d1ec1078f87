#pragma once

#include <mutex>
#include <optional>

#include "ZulCore/Media/VideoEncoder.h"

namespace zul {

// Turns each frame into a tiny, well-framed Annex-B access unit that carries
// the frame's number instead of pictures: one slice NAL (IDR for key frames)
// followed by the sequence as 8 big-endian bytes.
class FakeH264Encoder final : public VideoEncoder {
 public:
  std::string name() const override { return "fake-h264"; }
  bool isHardwareAccelerated() const override { return false; }
  void configure(const VideoEncoderSettings& settings) override;
  std::optional<EncodedVideoFrame> encode(const CapturedFrame& frame, bool forceKeyFrame) override;
  void setBitrate(std::int64_t kbps) override;

  std::optional<VideoEncoderSettings> settings() const;

 private:
  mutable std::mutex mutex_;
  std::optional<VideoEncoderSettings> settings_;
};

}  // namespace zul
