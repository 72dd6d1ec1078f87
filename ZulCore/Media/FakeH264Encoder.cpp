#include "ZulCore/Media/FakeH264Encoder.h"

namespace zul {

void FakeH264Encoder::configure(const VideoEncoderSettings& settings) {
  if (settings.bFrames != 0) throw MediaError::bFramesNotSupported();
  std::lock_guard lock(mutex_);
  settings_ = settings;
}

std::optional<EncodedVideoFrame> FakeH264Encoder::encode(const CapturedFrame& frame,
                                                         bool forceKeyFrame) {
  std::int64_t framesPerSecond = 0;
  {
    std::lock_guard lock(mutex_);
    if (!settings_) throw MediaError::notConfigured();
    framesPerSecond = settings_->framesPerSecond;
  }
  const bool key = forceKeyFrame || frame.sequence == 1;

  EncodedVideoFrame out;
  out.sequence = frame.sequence;
  out.capturedAt = frame.capturedAt;
  out.codec = VideoCodec::h264;
  out.annexB = {0x00, 0x00, 0x00, 0x01, static_cast<std::uint8_t>(key ? 0x65 : 0x41)};
  const auto sequence = static_cast<std::uint64_t>(frame.sequence);
  for (int shift = 56; shift >= 0; shift -= 8) {
    out.annexB.push_back(static_cast<std::uint8_t>(sequence >> shift));
  }
  out.rtpDuration = rtpDuration(framesPerSecond);
  out.isKeyFrame = key;
  return out;
}

void FakeH264Encoder::setBitrate(std::int64_t kbps) {
  std::lock_guard lock(mutex_);
  if (!settings_) throw MediaError::notConfigured();
  settings_->bitrateKbps = kbps;
}

std::optional<VideoEncoderSettings> FakeH264Encoder::settings() const {
  std::lock_guard lock(mutex_);
  return settings_;
}

}  // namespace zul
