#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ZulCore/Media/VideoEncoder.h"

namespace zul {

// H.264 over FFmpeg's libavcodec: a hardware encoder (VAAPI, NVENC) when the
// machine has one, libx264 otherwise. Always real time, Baseline profile, no
// frame reordering, average bit rate with a ceiling (so that the rates can
// change while running), a key frame at least every ten seconds;
// the output is Annex-B with SPS and PPS in front of every key frame only.
// Pixels come from the frame's `Nv12FrameSurface` or its NV12 `data`.
class LibavH264Encoder : public VideoEncoder {
 public:
  // The libavcodec encoders tried, in order; the default list puts the
  // hardware ones first and libx264 last.
  explicit LibavH264Encoder(std::vector<std::string> candidates = defaultCandidates());
  ~LibavH264Encoder() override;
  LibavH264Encoder(const LibavH264Encoder&) = delete;
  LibavH264Encoder& operator=(const LibavH264Encoder&) = delete;

  static std::vector<std::string> defaultCandidates();
  static bool isHardwareCodec(const std::string& codecName);

  // "libav-h264", followed by "/" and the libavcodec encoder once configured
  // (for example "libav-h264/libx264").
  std::string name() const override;
  bool isHardwareAccelerated() const override;
  // The libavcodec encoder in use; empty until configured.
  std::string codecName() const;
  std::optional<VideoEncoderSettings> settings() const;

  void configure(const VideoEncoderSettings& settings) override;
  std::optional<EncodedVideoFrame> encode(const CapturedFrame& frame, bool forceKeyFrame) override;
  void setBitrate(std::int64_t kbps) override;
  // Takes effect with the next frame (VAAPI: with the next bit rate change,
  // which opens a new session).
  void setFrameRate(double framesPerSecond) override;
  // The frame rate the rate control currently assumes; 0 until configured.
  double frameRate() const;

  struct Session;

 private:
  std::vector<std::string> candidates_;
  // The running session and its settings, or notConfigured.
  std::pair<std::shared_ptr<Session>, VideoEncoderSettings> configured() const;

  mutable std::mutex mutex_;  // guards session_ and settings_
  std::shared_ptr<Session> session_;
  std::optional<VideoEncoderSettings> settings_;
};

}  // namespace zul
