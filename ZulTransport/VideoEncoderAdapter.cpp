#include "ZulTransport/VideoEncoderAdapter.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <mutex>

#include "ZulCore/Media/FrameTrace.h"
#include "ZulCore/Media/Nv12Surface.h"
#include "ZulTransport/PeerVideoEncoding.h"
#include "api/video/nv12_buffer.h"
#include "api/video_codecs/builtin_video_encoder_factory.h"
#include "api/video_codecs/video_encoder_software_fallback_wrapper.h"
#include "modules/video_coding/include/video_codec_interface.h"
#include "modules/video_coding/include/video_error_codes.h"

namespace zul::webrtc_support {
namespace {

// A WebRTC NV12 frame buffer as the surface of a captured frame: the encoder
// reads the pushed pixels where they are.
class FrameBufferSurface : public Nv12Surface {
 public:
  explicit FrameBufferSurface(rtc::scoped_refptr<webrtc::VideoFrameBuffer> buffer)
      : buffer_(std::move(buffer)) {}
  std::string api() const override { return "webrtc-frame"; }
  Nv12PlaneView planes() const override {
    const webrtc::NV12BufferInterface* nv12 = buffer_->GetNV12();
    return {nv12->width(),   nv12->height(), nv12->DataY(),
            nv12->StrideY(), nv12->DataUV(), nv12->StrideUV()};
  }

 private:
  rtc::scoped_refptr<webrtc::VideoFrameBuffer> buffer_;
};

constexpr std::int64_t kDefaultStartKbps = 1000;

}  // namespace

webrtc::SdpVideoFormat constrainedBaselineH264() {
  return webrtc::SdpVideoFormat("H264", {{"profile-level-id", "42e01f"},
                                         {"level-asymmetry-allowed", "1"},
                                         {"packetization-mode", "1"}});
}

VideoEncoderAdapter::VideoEncoderAdapter(std::unique_ptr<zul::VideoEncoder> encoder, Print print,
                                         std::shared_ptr<FrameRateChoice> frameRate)
    : encoder_(std::move(encoder)), print_(std::move(print)), rateChoice_(std::move(frameRate)) {}

VideoEncoderAdapter::~VideoEncoderAdapter() = default;

void VideoEncoderAdapter::say(const std::string& line) const {
  if (print_) print_(line);
}

int VideoEncoderAdapter::InitEncode(const webrtc::VideoCodec* codec, const Settings&) {
  configured_ = false;
  inFlight_.clear();
  lastPts_ = -1;
  if (!codec || codec->codecType != webrtc::kVideoCodecH264 || codec->width == 0 ||
      codec->height == 0) {
    return WEBRTC_VIDEO_CODEC_ERR_PARAMETER;
  }
  VideoEncoderSettings settings;
  settings.codec = VideoCodec::h264;
  settings.width = codec->width;
  settings.height = codec->height;
  settings.framesPerSecond = std::max<std::int64_t>(codec->maxFramerate, 1);
  settings.bitrateKbps = codec->startBitrate > 0 ? codec->startBitrate
                         : codec->maxBitrate > 0 ? codec->maxBitrate
                                                 : kDefaultStartKbps;
  settings.hardwareRequired = false;
  settings.lowLatency = true;
  settings.bFrames = 0;
  settings.keyFramesOnRequestOnly = true;
  const std::string size = std::to_string(settings.width) + "x" + std::to_string(settings.height);
  try {
    encoder_->configure(settings);
  } catch (const std::exception& error) {
    say("video encoder: " + encoder_->name() + " cannot encode " + size + " (" + error.what() +
        "); falling back to WebRTC's OpenH264");
    return WEBRTC_VIDEO_CODEC_ERROR;
  }
  settings_ = settings;
  frameRate_ = double(settings.framesPerSecond);
  configured_ = true;
  // The rate capture runs at now, and when it changes.
  std::int64_t rate = settings.framesPerSecond;
  std::string adapts;
  if (rateChoice_) {
    const std::int64_t highest = std::min(rateChoice_->highest(), settings.framesPerSecond);
    const std::int64_t lower = std::min(rateChoice_->lower(), highest);
    rate = std::min(rateChoice_->framesPerSecond(), highest);
    if (lower < highest) {
      adapts = rate == highest
                   ? "; " + std::to_string(lower) +
                         " fps while a frame takes longer to encode than " +
                         std::to_string(highest) + " fps allow"
                   : "; " + std::to_string(highest) + " fps again once encoding keeps up";
    }
  }
  say("video encoder: " + encoder_->name() + " (" +
      (encoder_->isHardwareAccelerated() ? "hardware" : "software") + "), " + size + " at up to " +
      std::to_string(rate) + " fps, starting at " + std::to_string(settings.bitrateKbps) + " kbps" +
      adapts);
  return WEBRTC_VIDEO_CODEC_OK;
}

int32_t VideoEncoderAdapter::RegisterEncodeCompleteCallback(
    webrtc::EncodedImageCallback* callback) {
  callback_ = callback;
  return WEBRTC_VIDEO_CODEC_OK;
}

int32_t VideoEncoderAdapter::Release() {
  configured_ = false;
  inFlight_.clear();
  return WEBRTC_VIDEO_CODEC_OK;
}

int32_t VideoEncoderAdapter::Encode(const webrtc::VideoFrame& frame,
                                    const std::vector<webrtc::VideoFrameType>* frameTypes) {
  if (!configured_ || !callback_) return WEBRTC_VIDEO_CODEC_UNINITIALIZED;
  if (paused_) {
    if (frameTraceEnabled()) {
      char line[96];
      std::snprintf(line, sizeof line, "paused pushed=%.3f (no bit rate)",
                    wallMsOf(std::chrono::steady_clock::time_point(
                        std::chrono::microseconds(frame.timestamp_us()))));
      traceFrame(line);
    }
    return WEBRTC_VIDEO_CODEC_OK;
  }
  const bool keyFrame =
      frameTypes && std::find(frameTypes->begin(), frameTypes->end(),
                              webrtc::VideoFrameType::kVideoFrameKey) != frameTypes->end();

  // NV12 goes in as it is; anything else (a scaled or converted picture) is
  // made NV12 once here.
  rtc::scoped_refptr<webrtc::VideoFrameBuffer> buffer = frame.video_frame_buffer();
  if (buffer->type() != webrtc::VideoFrameBuffer::Type::kNV12) {
    auto i420 = buffer->ToI420();
    if (!i420) return WEBRTC_VIDEO_CODEC_ERROR;
    buffer = webrtc::NV12Buffer::Copy(*i420);
  }

  // A frame of another size (the watched display changed) before WebRTC has
  // reconfigured: the encoder starts afresh at that size.
  if (buffer->width() != settings_.width || buffer->height() != settings_.height) {
    VideoEncoderSettings resized = settings_;
    resized.width = buffer->width();
    resized.height = buffer->height();
    try {
      encoder_->configure(resized);
    } catch (const std::exception& error) {
      say("video encoder: " + encoder_->name() + " cannot encode " + std::to_string(resized.width) +
          "x" + std::to_string(resized.height) + " (" + error.what() +
          "); falling back to WebRTC's OpenH264");
      return WEBRTC_VIDEO_CODEC_FALLBACK_SOFTWARE;
    }
    settings_ = resized;
    frameRate_ = double(resized.framesPerSecond);  // a new session starts at the full rate
    inFlight_.clear();
  }

  // Time stamps in frames of the configured rate, from the capture clock, so
  // that the rate control sees the real spacing of frames (a still screen
  // sends few of them, each with a larger share of the bits).
  std::int64_t pts = frame.timestamp_us() * settings_.framesPerSecond / 1'000'000;
  if (pts <= lastPts_) pts = lastPts_ + 1;
  lastPts_ = pts;

  CapturedFrame captured;
  captured.sequence = pts;
  captured.capturedAt = std::chrono::system_clock::now();
  captured.width = buffer->width();
  captured.height = buffer->height();
  captured.pixelFormat = PixelFormat::nv12;
  captured.nativeSurface = std::make_shared<FrameBufferSurface>(buffer);
  const auto encodeStart = std::chrono::steady_clock::now();
  inFlight_[pts] = FrameTimes{frame.timestamp(), frame.render_time_ms(), frame.ntp_time_ms(),
                              frame.rotation(),  frame.timestamp_us(),   encodeStart};
  if (inFlight_.size() > 64) inFlight_.erase(inFlight_.begin());

  std::optional<EncodedVideoFrame> unit;
  try {
    unit = encoder_->encode(captured, keyFrame);
    if (rateChoice_) noteEncodeTime(std::chrono::steady_clock::now() - encodeStart);
  } catch (const std::exception& error) {
    inFlight_.erase(pts);
    say("video encoder: " + encoder_->name() + " failed a frame (" + error.what() +
        "); falling back to WebRTC's OpenH264");
    return WEBRTC_VIDEO_CODEC_FALLBACK_SOFTWARE;
  }
  if (!unit) return WEBRTC_VIDEO_CODEC_OK;  // the encoder holds it for now
  return deliver(*unit);
}

void VideoEncoderAdapter::noteEncodeTime(std::chrono::nanoseconds took) {
  const auto change = rateChoice_->encoded(took);
  if (change == FrameRateChoice::Change::none) return;
  char typical[32];
  std::snprintf(typical, sizeof typical, "%.1f",
                double(rateChoice_->typicalEncodeTime().count()) / 1e6);
  const std::string highest = std::to_string(rateChoice_->highest());
  say(change == FrameRateChoice::Change::lowered
          ? "video: " + std::to_string(rateChoice_->framesPerSecond()) +
                " fps from now on (a frame takes " + typical + " ms to encode, more than " +
                highest + " fps allow)"
          : "video: " + highest + " fps again (a frame takes " + typical + " ms to encode)");
}

int32_t VideoEncoderAdapter::deliver(const EncodedVideoFrame& unit) {
  FrameTimes times;
  if (auto it = inFlight_.find(unit.sequence); it != inFlight_.end()) {
    times = it->second;
    inFlight_.erase(inFlight_.begin(), std::next(it));
  } else {
    return WEBRTC_VIDEO_CODEC_OK;  // a unit of a frame no longer known
  }
  webrtc::EncodedImage image;
  image.SetEncodedData(webrtc::EncodedImageBuffer::Create(unit.annexB.data(), unit.annexB.size()));
  image._encodedWidth = std::uint32_t(settings_.width);
  image._encodedHeight = std::uint32_t(settings_.height);
  image.SetTimestamp(times.rtpTimestamp);
  image.capture_time_ms_ = times.captureTimeMs;
  image.ntp_time_ms_ = times.ntpTimeMs;
  image.rotation_ = times.rotation;
  // A remote screen is worked on, not watched: the phone shows each frame as
  // soon as it is decoded instead of buffering for smooth playback.
  image.playout_delay_ = webrtc::VideoPlayoutDelay(0, 0);
  image._frameType = unit.isKeyFrame ? webrtc::VideoFrameType::kVideoFrameKey
                                     : webrtc::VideoFrameType::kVideoFrameDelta;

  webrtc::CodecSpecificInfo info;
  info.codecType = webrtc::kVideoCodecH264;
  info.codecSpecific.H264.packetization_mode = webrtc::H264PacketizationMode::NonInterleaved;
  info.codecSpecific.H264.temporal_idx = webrtc::kNoTemporalIdx;
  info.codecSpecific.H264.base_layer_sync = false;
  info.codecSpecific.H264.idr_frame = unit.isKeyFrame;
  const auto encoded = std::chrono::steady_clock::now();
  const auto result = callback_->OnEncodedImage(image, &info);
  if (frameTraceEnabled()) {
    // pushed: into the video source; the encoder's turn; the unit out of it;
    // the unit handed to the packetizer and pacer.
    char line[200];
    std::snprintf(
        line, sizeof line,
        "encoded rtp=%u pushed=%.3f encode_at=%.3f encoded=%.3f queued=%.3f bytes=%zu "
        "key=%d kbps=%lld bwe=%lld",
        times.rtpTimestamp,
        wallMsOf(std::chrono::steady_clock::time_point(std::chrono::microseconds(times.pushedUs))),
        wallMsOf(times.encodeStart), wallMsOf(encoded), wallMsOf(std::chrono::steady_clock::now()),
        unit.annexB.size(), unit.isKeyFrame ? 1 : 0, static_cast<long long>(settings_.bitrateKbps),
        static_cast<long long>(bandwidthKbps_));
    traceFrame(line);
  }
  return result.error == webrtc::EncodedImageCallback::Result::OK ? WEBRTC_VIDEO_CODEC_OK
                                                                  : WEBRTC_VIDEO_CODEC_ERROR;
}

void VideoEncoderAdapter::SetRates(const RateControlParameters& parameters) {
  if (!configured_) return;
  const std::int64_t kbps = std::int64_t(parameters.bitrate.get_sum_bps() / 1000);
  bandwidthKbps_ = parameters.bandwidth_allocation.kbps();
  paused_ = kbps <= 0;
  if (paused_) return;
  if (kbps != settings_.bitrateKbps) {
    try {
      encoder_->setBitrate(kbps);
      settings_.bitrateKbps = kbps;
    } catch (const std::exception& error) {
      say("video encoder: " + encoder_->name() + " kept its bit rate (" + error.what() + ")");
    }
  }
  // The rate frames really come at (a still screen, a throttled link): each
  // frame gets its share of the bits. Small wobbles of the estimate are not
  // worth a change of the rate control.
  const double fps = std::min(parameters.framerate_fps, double(settings_.framesPerSecond));
  if (fps > 0 && std::abs(fps - frameRate_) >= std::max(0.5, frameRate_ / 10)) {
    try {
      encoder_->setFrameRate(fps);
      frameRate_ = fps;
    } catch (const std::exception& error) {
      say("video encoder: " + encoder_->name() + " kept its frame rate (" + error.what() + ")");
    }
  }
}

webrtc::VideoEncoder::EncoderInfo VideoEncoderAdapter::GetEncoderInfo() const {
  EncoderInfo info;
  info.implementation_name = encoder_->name();
  info.is_hardware_accelerated = encoder_->isHardwareAccelerated();
  info.supports_native_handle = false;
  // Our rate control is libx264's buffer model (or the hardware's), which
  // keeps the average at the target: WebRTC's frame dropper would otherwise
  // drop the frames after a whole new page, each of which is a change the
  // phone waits for.
  info.has_trusted_rate_controller = true;
  // A screen is read, not watched: WebRTC must not shrink it on its own.
  info.scaling_settings = ScalingSettings::kOff;
  info.requested_resolution_alignment = 2;
  info.supports_simulcast = false;
  info.preferred_pixel_formats = {webrtc::VideoFrameBuffer::Type::kNV12};
  return info;
}

AgentVideoEncoderFactory::AgentVideoEncoderFactory(
    std::function<std::unique_ptr<zul::VideoEncoder>()> makeEncoder,
    VideoEncoderAdapter::Print print, std::shared_ptr<FrameRateChoice> frameRate)
    : makeEncoder_(std::move(makeEncoder)),
      print_(std::move(print)),
      rateChoice_(std::move(frameRate)),
      builtin_(webrtc::CreateBuiltinVideoEncoderFactory()) {}

AgentVideoEncoderFactory::~AgentVideoEncoderFactory() = default;

std::vector<webrtc::SdpVideoFormat> AgentVideoEncoderFactory::GetSupportedFormats() const {
  const webrtc::SdpVideoFormat ours = constrainedBaselineH264();
  std::vector<webrtc::SdpVideoFormat> formats{ours};
  for (auto& format : builtin_->GetSupportedFormats()) {
    if (!format.IsSameCodec(ours)) formats.push_back(std::move(format));
  }
  return formats;
}

std::unique_ptr<webrtc::VideoEncoder> AgentVideoEncoderFactory::CreateVideoEncoder(
    const webrtc::SdpVideoFormat& format) {
  if (format.name != "H264") return builtin_->CreateVideoEncoder(format);
  std::unique_ptr<zul::VideoEncoder> encoder;
  try {
    encoder = makeEncoder_();
  } catch (const std::exception& error) {
    if (print_) print_(std::string("video encoder: ") + error.what());
  }
  auto openH264 = builtin_->CreateVideoEncoder(format);
  if (!encoder) {
    if (print_) print_("video encoder: WebRTC's OpenH264 (ours is unavailable)");
    return openH264;
  }
  auto ours = std::make_unique<VideoEncoderAdapter>(std::move(encoder), print_, rateChoice_);
  if (!openH264) return ours;
  return webrtc::CreateVideoEncoderSoftwareFallbackWrapper(std::move(openH264), std::move(ours));
}

std::unique_ptr<webrtc::VideoEncoderFactory> makeVideoEncoderFactory(
    const PeerVideoEncoding& encoding) {
  if (!encoding.makeEncoder) return webrtc::CreateBuiltinVideoEncoderFactory();
  return std::make_unique<AgentVideoEncoderFactory>(encoding.makeEncoder, encoding.print,
                                                    encoding.frameRate);
}

}  // namespace zul::webrtc_support
