#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include "ZulCore/Media/CapturedFrame.h"
#include "ZulCore/Support/Bytes.h"
#include "ZulCore/Support/Error.h"

namespace zul {

enum class VideoCodec { h264 };

struct VideoEncoderSettings {
  VideoCodec codec = VideoCodec::h264;
  std::int64_t width = 0;
  std::int64_t height = 0;
  std::int64_t framesPerSecond = 0;
  std::int64_t bitrateKbps = 0;
  bool hardwareRequired = false;
  bool lowLatency = true;
  std::int64_t bFrames = 0;
  // No periodic key frames: only the first and the forced ones (a peer
  // connection asks for one whenever its receiver needs it).
  bool keyFramesOnRequestOnly = false;

  friend bool operator==(const VideoEncoderSettings&, const VideoEncoderSettings&) = default;
};

// Duration of one frame in 90 kHz RTP ticks; a rate below 1 counts as 1.
std::uint32_t rtpDuration(std::int64_t framesPerSecond);

struct EncodedVideoFrame {
  std::int64_t sequence = 0;
  std::chrono::system_clock::time_point capturedAt;
  VideoCodec codec = VideoCodec::h264;
  Bytes annexB;  // NAL units, each preceded by 00 00 00 01
  std::uint32_t rtpDuration = 0;
  bool isKeyFrame = false;
};

class MediaError : public Error {
 public:
  enum class Case {
    sessionCreationFailed,
    encodeFailed,
    propertyUpdateFailed,
    notConfigured,
    invalidDimensions,
    bFramesNotSupported,
    missingNativeSurface,
    hardwareUnavailable,  // hardware was required and the machine has none
  };

  // The first three carry the media library's status code.
  static MediaError sessionCreationFailed(std::int32_t status);
  static MediaError encodeFailed(std::int32_t status);
  static MediaError propertyUpdateFailed(std::int32_t status);
  static MediaError notConfigured();
  static MediaError invalidDimensions();
  static MediaError bFramesNotSupported();
  static MediaError missingNativeSurface();
  static MediaError hardwareUnavailable();

  Case kind() const { return kind_; }
  std::int32_t status() const { return status_; }

  friend bool operator==(const MediaError& a, const MediaError& b) {
    return a.kind_ == b.kind_ && a.status_ == b.status_;
  }

 private:
  MediaError(Case kind, std::string text, std::int32_t status = 0)
      : Error(std::move(text)), kind_(kind), status_(status) {}

  Case kind_;
  std::int32_t status_;
};

// An H.264 encoder. Implementations serialise internally: `encode` may be
// called for several frames at once.
class VideoEncoder {
 public:
  virtual ~VideoEncoder() = default;

  virtual std::string name() const = 0;
  virtual bool isHardwareAccelerated() const = 0;
  // Validates and keeps the settings; may be called again. Throws MediaError.
  virtual void configure(const VideoEncoderSettings& settings) = 0;
  // No result: accepted but no output yet (buffered or dropped), not an error.
  virtual std::optional<EncodedVideoFrame> encode(const CapturedFrame& frame,
                                                  bool forceKeyFrame) = 0;
  virtual void setBitrate(std::int64_t kbps) = 0;
  // The rate frames actually arrive at (at most the configured one), so that
  // each gets its share of the bit rate. An encoder whose rate control does
  // not depend on it may ignore it.
  virtual void setFrameRate(double framesPerSecond) { (void)framesPerSecond; }
};

}  // namespace zul
