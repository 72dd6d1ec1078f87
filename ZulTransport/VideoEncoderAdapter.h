#pragma once

// Private to ZulTransport: our H.264 encoders behind WebRTC's encoder
// interfaces. Never included by a public header.

#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "ZulCore/Media/VideoEncoder.h"
#include "ZulTransport/PeerVideoEncoding.h"
#include "api/video_codecs/sdp_video_format.h"
#include "api/video_codecs/video_encoder.h"
#include "api/video_codecs/video_encoder_factory.h"

namespace zul::webrtc_support {

// The one format our encoders offer: H.264 Constrained Baseline level 3.1,
// packetization mode 1 (several NAL units per frame, fragmented as needed).
webrtc::SdpVideoFormat constrainedBaselineH264();

// One `VideoEncoder` as WebRTC's encoder of a video stream. WebRTC calls it
// on one encoder thread at a time.
class VideoEncoderAdapter : public webrtc::VideoEncoder {
 public:
  using Print = std::function<void(const std::string&)>;
  VideoEncoderAdapter(std::unique_ptr<zul::VideoEncoder> encoder, Print print,
                      std::shared_ptr<FrameRateChoice> frameRate = nullptr);
  ~VideoEncoderAdapter() override;

  int InitEncode(const webrtc::VideoCodec* codec, const Settings& settings) override;
  int32_t RegisterEncodeCompleteCallback(webrtc::EncodedImageCallback* callback) override;
  int32_t Release() override;
  int32_t Encode(const webrtc::VideoFrame& frame,
                 const std::vector<webrtc::VideoFrameType>* frameTypes) override;
  void SetRates(const RateControlParameters& parameters) override;
  EncoderInfo GetEncoderInfo() const override;

  // The settings the encoder was last configured or updated with.
  const VideoEncoderSettings& settings() const { return settings_; }
  // The frame rate the encoder was last told frames arrive at.
  double frameRate() const { return frameRate_; }

 private:
  struct FrameTimes {
    std::uint32_t rtpTimestamp = 0;
    std::int64_t captureTimeMs = 0;
    std::int64_t ntpTimeMs = 0;
    webrtc::VideoRotation rotation = webrtc::kVideoRotation_0;
    std::int64_t pushedUs = 0;  // on the monotonic clock
    std::chrono::steady_clock::time_point encodeStart;
  };
  int32_t deliver(const EncodedVideoFrame& unit);
  // Tells the frame rate choice, and says when it changes the rate.
  void noteEncodeTime(std::chrono::nanoseconds took);
  void say(const std::string& line) const;

  std::unique_ptr<zul::VideoEncoder> encoder_;
  Print print_;
  std::shared_ptr<FrameRateChoice> rateChoice_;
  webrtc::EncodedImageCallback* callback_ = nullptr;
  bool configured_ = false;
  bool paused_ = false;  // WebRTC gives the stream no bits
  VideoEncoderSettings settings_;
  double frameRate_ = 0;
  std::int64_t bandwidthKbps_ = 0;  // the estimate the library shares out, for the trace
  std::int64_t lastPts_ = -1;
  // Frames inside the encoder, by time stamp, until their unit comes out.
  std::map<std::int64_t, FrameTimes> inFlight_;
};

// Offers our H.264 first, then the library's own formats; an H.264 stream gets
// our encoder with the library's OpenH264 behind it as a fallback.
class AgentVideoEncoderFactory : public webrtc::VideoEncoderFactory {
 public:
  AgentVideoEncoderFactory(std::function<std::unique_ptr<zul::VideoEncoder>()> makeEncoder,
                           VideoEncoderAdapter::Print print,
                           std::shared_ptr<FrameRateChoice> frameRate = nullptr);
  ~AgentVideoEncoderFactory() override;

  std::vector<webrtc::SdpVideoFormat> GetSupportedFormats() const override;
  std::unique_ptr<webrtc::VideoEncoder> CreateVideoEncoder(
      const webrtc::SdpVideoFormat& format) override;

 private:
  std::function<std::unique_ptr<zul::VideoEncoder>()> makeEncoder_;
  VideoEncoderAdapter::Print print_;
  std::shared_ptr<FrameRateChoice> rateChoice_;
  std::unique_ptr<webrtc::VideoEncoderFactory> builtin_;
};

// The factory for a new peer connection factory: ours when the encoding has a
// maker, else the library's.
std::unique_ptr<webrtc::VideoEncoderFactory> makeVideoEncoderFactory(
    const PeerVideoEncoding& encoding);

}  // namespace zul::webrtc_support
