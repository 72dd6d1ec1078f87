#include "ZulTransport/WebRtcSupport.h"

#include <algorithm>
#include <cstdlib>
#include <future>
#include <string_view>

#include "ZulCore/Media/FrameTrace.h"
#include "ZulCore/Media/Nv12Surface.h"
#include "ZulCore/Support/Console.h"
#include "ZulTransport/VideoEncoderAdapter.h"
#include "ZulTransport/WebRtcError.h"
#include "ZulTransport/WebRtcLogging.h"
#include "api/audio_codecs/builtin_audio_decoder_factory.h"
#include "api/audio_codecs/builtin_audio_encoder_factory.h"
#include "api/create_peerconnection_factory.h"
#include "api/jsep.h"
#include "api/video/i420_buffer.h"
#include "api/video/nv12_buffer.h"
#include "api/video_codecs/builtin_video_decoder_factory.h"
#include "api/video_codecs/builtin_video_encoder_factory.h"
#include "libyuv/convert.h"
#include "modules/audio_device/include/fake_audio_device.h"
#include "pc/ice_server_parsing.h"
#include "rtc_base/logging.h"
#include "rtc_base/ref_counted_object.h"
#include "rtc_base/ssl_adapter.h"
#include "system_wrappers/include/field_trial.h"

namespace zul::webrtc_support {
namespace {

rtc::LoggingSeverity logLevelFromEnvironment() {
  const char* value = std::getenv("ZUL_WEBRTC_LOG");
  const std::string_view level = value ? value : "";
  if (level == "verbose") return rtc::LS_VERBOSE;
  if (level == "info") return rtc::LS_INFO;
  if (level == "warning") return rtc::LS_WARNING;
  if (level == "error") return rtc::LS_ERROR;
  return rtc::LS_NONE;
}

// How the library sends a screen. A screen share probes the path now and
// then while it is idle (application-limited), so that the bandwidth
// estimate a still screen leaves behind is still the link's when a whole new
// page comes; and the pacer lets no frame wait in its queue longer than about
// a millisecond, so that a large frame leaves at once rather than spread over
// 10 ms or more at the estimate (which still shapes the frames' sizes through
// the encoder's rate; the latency benchmark's "send" step shows the cost).
// The figures of the screen-share experiment are its pacing factor, queue
// time limit in ms, and the ALR thresholds of the library's own screen-share
// setting.
constexpr const char* screenFieldTrials = "WebRTC-ProbingScreenshareBwe/2.5,1,80,40,-60,3/";

WebRtcError toError(const webrtc::RTCError& error) {
  return WebRtcError(webrtc::ToString(error.type()), error.message());
}

class OfferObserver : public webrtc::CreateSessionDescriptionObserver {
 public:
  std::promise<std::unique_ptr<webrtc::SessionDescriptionInterface>> result;

  void OnSuccess(webrtc::SessionDescriptionInterface* description) override {
    result.set_value(std::unique_ptr<webrtc::SessionDescriptionInterface>(description));
  }
  void OnFailure(webrtc::RTCError error) override {
    result.set_exception(std::make_exception_ptr(toError(error)));
  }
};

class LocalObserver : public webrtc::SetLocalDescriptionObserverInterface {
 public:
  std::promise<webrtc::RTCError> result;
  void OnSetLocalDescriptionComplete(webrtc::RTCError error) override {
    result.set_value(std::move(error));
  }
};

class RemoteObserver : public webrtc::SetRemoteDescriptionObserverInterface {
 public:
  std::promise<webrtc::RTCError> result;
  void OnSetRemoteDescriptionComplete(webrtc::RTCError error) override {
    result.set_value(std::move(error));
  }
};

}  // namespace

void initialize() {
  static std::once_flag once;
  std::call_once(once, [] {
    rtc::LogMessage::LogToDebug(logLevelFromEnvironment());
    // ZUL_WEBRTC_FIELD_TRIALS replaces them, for experiments. The library
    // keeps the pointer: the text lives as long as the process.
    static const std::string trials = [] {
      const char* asked = std::getenv("ZUL_WEBRTC_FIELD_TRIALS");
      return std::string(asked ? asked : screenFieldTrials);
    }();
    webrtc::field_trial::InitFieldTrialsFromString(trials.c_str());
    rtc::LogMessage::LogTimestamps(false);
    rtc::InitializeSSL();
  });
}

Runtime::Runtime(const PeerVideoEncoding& encoding) {
  initialize();
  network_ = rtc::Thread::CreateWithSocketServer();
  network_->SetName("zul.webrtc.network", nullptr);
  network_->Start();
  worker_ = rtc::Thread::Create();
  worker_->SetName("zul.webrtc.worker", nullptr);
  worker_->Start();
  signaling_ = rtc::Thread::Create();
  signaling_->SetName("zul.webrtc.signaling", nullptr);
  signaling_->Start();
  // No audio device: the agent sends video only.
  rtc::scoped_refptr<webrtc::AudioDeviceModule> audioDevice(
      new rtc::RefCountedObject<webrtc::FakeAudioDeviceModule>());
  factory_ = webrtc::CreatePeerConnectionFactory(
      network_.get(), worker_.get(), signaling_.get(), audioDevice,
      webrtc::CreateBuiltinAudioEncoderFactory(), webrtc::CreateBuiltinAudioDecoderFactory(),
      makeVideoEncoderFactory(encoding), webrtc::CreateBuiltinVideoDecoderFactory(), nullptr,
      nullptr);
}

Runtime::~Runtime() {
  factory_ = nullptr;
  signaling_->Stop();
  worker_->Stop();
  network_->Stop();
}

PushedVideoSource::PushedVideoSource() {
  // The agent captures at most this size; the demo captures the display as
  // it is, and a 4K screen would cost a phone four times the decoding.
  video_adapter()->OnOutputFormatRequest(absl::nullopt, maxPixels, absl::nullopt);
}

bool PushedVideoSource::push(const CapturedFrame& frame, std::int64_t timestampNs) {
  auto buffer = toFrameBuffer(frame);
  if (!buffer) return false;
  pushBuffer(std::move(buffer), timestampNs);
  return true;
}

void PushedVideoSource::pushBuffer(rtc::scoped_refptr<webrtc::VideoFrameBuffer> buffer,
                                   std::int64_t timestampNs) {
  const std::int64_t timeUs = timestampNs / 1000;
  // The capture's gate sets the frame rate, not the library's adapter: the
  // adapter drops a picture that comes a little sooner than its rate after
  // the previous one, and when that picture completes a change the phone
  // waits for the next idle frame, half a second later. It only shrinks
  // pictures above 1080p (the demo's large displays).
  if (std::int64_t(buffer->width()) * buffer->height() <= maxPixels) {
    OnFrame(webrtc::VideoFrame::Builder()
                .set_video_frame_buffer(buffer)
                .set_rotation(webrtc::kVideoRotation_0)
                .set_timestamp_us(timeUs)
                .build());
    return;
  }
  int width = 0, height = 0, cropWidth = 0, cropHeight = 0, cropX = 0, cropY = 0;
  if (!AdaptFrame(buffer->width(), buffer->height(), timeUs, &width, &height, &cropWidth,
                  &cropHeight, &cropX, &cropY)) {
    if (frameTraceEnabled()) {
      char line[96];
      std::snprintf(
          line, sizeof line, "dropped pushed=%.3f by the source's adapter",
          wallMsOf(std::chrono::steady_clock::time_point(std::chrono::microseconds(timeUs))));
      traceFrame(line);
    }
    return;  // nobody wants a frame now
  }
  if (width != buffer->width() || height != buffer->height()) {
    // NV12 stays NV12, so the encoder still takes it as it is.
    buffer = buffer->CropAndScale(cropX, cropY, cropWidth, cropHeight, width, height);
  }
  OnFrame(webrtc::VideoFrame::Builder()
              .set_video_frame_buffer(buffer)
              .set_rotation(webrtc::kVideoRotation_0)
              .set_timestamp_us(timeUs)
              .build());
}

namespace {

// NV12 planes held rather than copied: the frame buffer keeps their owner
// (the capture surface, or the frame's data) alive until the encoder is done.
class SharedNv12Buffer : public webrtc::NV12BufferInterface {
 public:
  SharedNv12Buffer(Nv12PlaneView planes, std::shared_ptr<const void> owner)
      : planes_(planes), owner_(std::move(owner)) {}
  int width() const override { return planes_.width; }
  int height() const override { return planes_.height; }
  int StrideY() const override { return planes_.lumaStride; }
  int StrideUV() const override { return planes_.chromaStride; }
  const uint8_t* DataY() const override { return planes_.luma; }
  const uint8_t* DataUV() const override { return planes_.chroma; }
  rtc::scoped_refptr<webrtc::I420BufferInterface> ToI420() override {
    auto out = webrtc::I420Buffer::Create(planes_.width, planes_.height);
    libyuv::NV12ToI420(planes_.luma, planes_.lumaStride, planes_.chroma, planes_.chromaStride,
                       out->MutableDataY(), out->StrideY(), out->MutableDataU(), out->StrideU(),
                       out->MutableDataV(), out->StrideV(), planes_.width, planes_.height);
    return out;
  }

 private:
  Nv12PlaneView planes_;
  std::shared_ptr<const void> owner_;
};

bool usable(const Nv12PlaneView& planes) {
  return planes.luma && planes.chroma && planes.width > 0 && planes.height > 0 &&
         planes.width <= 16384 && planes.height <= 16384 && planes.lumaStride >= planes.width &&
         planes.chromaStride >= (planes.width + 1) / 2 * 2;
}

}  // namespace

rtc::scoped_refptr<webrtc::VideoFrameBuffer> toFrameBuffer(const CapturedFrame& frame) {
  if (auto* surface = dynamic_cast<const Nv12Surface*>(frame.nativeSurface.get())) {
    const Nv12PlaneView planes = surface->planes();
    if (!usable(planes)) return nullptr;
    return rtc::make_ref_counted<SharedNv12Buffer>(planes, frame.nativeSurface);
  }
  if (!frame.data || frame.width <= 0 || frame.height <= 0 || frame.width > 16384 ||
      frame.height > 16384) {
    return nullptr;
  }
  const int width = static_cast<int>(frame.width);
  const int height = static_cast<int>(frame.height);
  const int chromaWidth = (width + 1) / 2;
  const int chromaHeight = (height + 1) / 2;
  const std::uint8_t* pixels = frame.data->data();
  const std::size_t size = frame.data->size();
  if (frame.pixelFormat == PixelFormat::nv12) {
    const std::size_t luma = static_cast<std::size_t>(width) * height;
    if (size < luma + static_cast<std::size_t>(chromaWidth) * 2 * chromaHeight) return nullptr;
    return rtc::make_ref_counted<SharedNv12Buffer>(
        Nv12PlaneView{width, height, pixels, width, pixels + luma, chromaWidth * 2}, frame.data);
  }
  // Packed BGRA (libyuv's "ARGB" is B, G, R, A in memory).
  if (size < static_cast<std::size_t>(width) * height * 4) return nullptr;
  auto out = webrtc::I420Buffer::Create(width, height);
  if (libyuv::ARGBToI420(pixels, width * 4, out->MutableDataY(), out->StrideY(),
                         out->MutableDataU(), out->StrideU(), out->MutableDataV(), out->StrideV(),
                         width, height) != 0) {
    return nullptr;
  }
  return out;
}

void GatheringLatch::complete() {
  {
    std::lock_guard lock(mutex_);
    complete_ = true;
  }
  done_.notify_all();
}

void GatheringLatch::reset() {
  std::lock_guard lock(mutex_);
  complete_ = false;
}

void GatheringLatch::wait() {
  std::unique_lock lock(mutex_);
  done_.wait(lock, [&] { return complete_; });
}

bool GatheringLatch::waitFor(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  return done_.wait_for(lock, limit, [&] { return complete_; });
}

bool GatheringLatch::isComplete() {
  std::lock_guard lock(mutex_);
  return complete_;
}

std::unique_ptr<webrtc::SessionDescriptionInterface> createOffer(
    webrtc::PeerConnectionInterface& connection,
    const webrtc::PeerConnectionInterface::RTCOfferAnswerOptions& options) {
  auto observer = rtc::make_ref_counted<OfferObserver>();
  auto future = observer->result.get_future();
  connection.CreateOffer(observer.get(), options);
  return future.get();
}

void setLocalDescription(webrtc::PeerConnectionInterface& connection,
                         std::unique_ptr<webrtc::SessionDescriptionInterface> description) {
  auto observer = rtc::make_ref_counted<LocalObserver>();
  auto future = observer->result.get_future();
  connection.SetLocalDescription(std::move(description), observer);
  const webrtc::RTCError error = future.get();
  if (!error.ok()) throw toError(error);
}

void setRemoteAnswer(webrtc::PeerConnectionInterface& connection, const std::string& sdp) {
  webrtc::SdpParseError parseError;
  auto description = webrtc::CreateSessionDescription(webrtc::SdpType::kAnswer, sdp, &parseError);
  if (!description) {
    throw WebRtcError("INVALID_PARAMETER",
                      "could not parse the answer: " + parseError.description +
                          (parseError.line.empty() ? "" : " (line: " + parseError.line + ")"));
  }
  auto observer = rtc::make_ref_counted<RemoteObserver>();
  auto future = observer->result.get_future();
  connection.SetRemoteDescription(std::move(description), observer);
  const webrtc::RTCError error = future.get();
  if (!error.ok()) throw toError(error);
  // The negotiation drops what was set on the sender before it.
  for (const auto& sender : connection.GetSenders()) {
    if (sender->media_type() != cricket::MEDIA_TYPE_VIDEO) continue;
    if (auto problem = keepScreenSending(*sender)) throw WebRtcError("INVALID_STATE", *problem);
  }
}

std::optional<std::string> localDescriptionSdp(rtc::Thread& signaling,
                                               webrtc::PeerConnectionInterface& connection) {
  return signaling.BlockingCall([&]() -> std::optional<std::string> {
    const webrtc::SessionDescriptionInterface* description = connection.local_description();
    std::string sdp;
    if (!description || !description->ToString(&sdp)) return std::nullopt;
    return sdp;
  });
}

std::optional<std::string> keepScreenSending(webrtc::RtpSenderInterface& sender) {
  // A screen is read, not watched: keep every pixel and give up frame rate
  // instead when the bandwidth is short.
  auto parameters = sender.GetParameters();
  parameters.degradation_preference = webrtc::DegradationPreference::MAINTAIN_RESOLUTION;
  // The library's ceiling for 1080p (2.5 Mbit/s) makes a new page of text a
  // blur for half a second; the bandwidth estimate still keeps the rate below
  // what the path carries.
  for (auto& encoding : parameters.encodings) encoding.max_bitrate_bps = maxBitrateBps;
  if (auto error = sender.SetParameters(parameters); !error.ok()) {
    return "could not keep the resolution: " + std::string(error.message());
  }
  return std::nullopt;
}

std::optional<std::string> addVideoTrack(webrtc::PeerConnectionFactoryInterface& factory,
                                         webrtc::PeerConnectionInterface& connection,
                                         const rtc::scoped_refptr<PushedVideoSource>& source) {
  auto track = factory.CreateVideoTrack("zul-video0", source.get());
  // Text and edges: under a tight link, frame rate and quality go first.
  track->set_content_hint(webrtc::VideoTrackInterface::ContentHint::kDetailed);
  auto added = connection.AddTrack(track, {"zul-stream0"});
  if (!added.ok()) return "could not add the video track: " + std::string(added.error().message());
  auto sender = added.MoveValue();
  if (auto problem = keepScreenSending(*sender)) return problem;
  // The library starts at 300 kbit/s, which makes the first picture of a
  // 1080p screen a blur; the estimate still falls at once where the link is
  // slower.
  webrtc::BitrateSettings bitrates;
  bitrates.start_bitrate_bps = startBitrateBps;
  if (auto error = connection.SetBitrate(bitrates); !error.ok()) {
    return "could not set the starting bit rate: " + std::string(error.message());
  }
  for (const auto& transceiver : connection.GetTransceivers()) {
    if (transceiver->sender() != sender) continue;
    auto codecs = factory.GetRtpSenderCapabilities(cricket::MEDIA_TYPE_VIDEO).codecs;
    std::stable_partition(codecs.begin(), codecs.end(),
                          [](const webrtc::RtpCodecCapability& c) { return c.name == "H264"; });
    webrtc::RTCError error = transceiver->SetCodecPreferences(codecs);
    if (!error.ok()) return "could not prefer H.264: " + std::string(error.message());
  }
  return std::nullopt;
}

webrtc::PeerConnectionInterface::RTCOfferAnswerOptions sendOnlyOfferOptions() {
  webrtc::PeerConnectionInterface::RTCOfferAnswerOptions options;
  options.offer_to_receive_video = 0;
  options.offer_to_receive_audio = 0;
  return options;
}

}  // namespace zul::webrtc_support

namespace zul {

void configureWebRtcLogging() { webrtc_support::initialize(); }

}  // namespace zul

namespace zul::webrtc_support {
namespace {

constexpr std::size_t kMaxIceText = 512;

bool hasControlOrSpace(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](unsigned char c) { return c <= 0x20 || c == 0x7f; });
}

// Why the library or the TURN server would refuse `url`, or nothing.
std::optional<std::string> iceUrlProblem(const std::string& url, const std::string& username,
                                         const std::string& credential) {
  if (url.empty()) return "empty";
  if (url.size() > kMaxIceText) return "longer than 512 bytes";
  if (hasControlOrSpace(url)) return "control character or space";
  const std::string_view scheme = std::string_view(url).substr(0, url.find(':'));
  const bool turn = scheme == "turn" || scheme == "turns";
  if (!turn && scheme != "stun" && scheme != "stuns")
    return "scheme is not stun, stuns, turn or turns";
  if (url.find('@') != std::string::npos) return "user info in the URL";
  std::string_view rest = std::string_view(url).substr(scheme.size() + 1);
  if (auto query = rest.find('?'); query != std::string_view::npos) {
    const auto parameter = rest.substr(query + 1);
    if (!turn || (parameter != "transport=udp" && parameter != "transport=tcp")) {
      return "transport is not udp or tcp";
    }
    rest = rest.substr(0, query);
  }
  std::string_view port;
  if (!rest.empty() && rest.front() == '[') {
    const auto close = rest.find(']');
    if (close == std::string_view::npos || close == 1) return "bad host";
    if (close + 1 < rest.size()) {
      if (rest[close + 1] != ':') return "bad host";
      port = rest.substr(close + 2);
      if (port.empty()) return "bad port";
    }
  } else if (auto colon = rest.rfind(':'); colon != std::string_view::npos) {
    port = rest.substr(colon + 1);
    rest = rest.substr(0, colon);
    if (port.empty()) return "bad port";
  }
  if (rest.empty()) return "no host";
  if (!port.empty()) {
    const bool digits = port.size() <= 5 && std::all_of(port.begin(), port.end(), [](char c) {
                          return c >= '0' && c <= '9';
                        });
    if (!digits || std::stoi(std::string(port)) < 1 || std::stoi(std::string(port)) > 65535) {
      return "port is not 1 to 65535";
    }
  }
  if (turn) {
    if (username.empty() || credential.empty()) return "TURN without user name or credential";
    if (username.size() > kMaxIceText || credential.size() > kMaxIceText) {
      return "TURN user name or credential longer than 512 bytes";
    }
    if (hasControlOrSpace(username) || hasControlOrSpace(credential)) {
      return "control character in the TURN user name or credential";
    }
  }
  webrtc::PeerConnectionInterface::IceServer server;
  server.urls = {url};
  server.username = username;
  server.password = credential;
  cricket::ServerAddresses stunServers;
  std::vector<cricket::RelayServerConfig> turnServers;
  const webrtc::RTCError error =
      webrtc::ParseIceServersOrError({server}, &stunServers, &turnServers);
  if (!error.ok()) return std::string(error.message());
  return std::nullopt;
}

}  // namespace

UsableIceServers usableIceServers(const std::vector<std::string>& urls, const std::string& username,
                                  const std::string& credential) {
  // A server's list is short; a longer one is cut rather than printed whole.
  constexpr std::size_t kMaxUrls = 32;
  UsableIceServers usable;
  for (std::size_t i = 0; i < urls.size() && i < kMaxUrls; ++i) {
    const std::string& url = urls[i];
    if (auto problem = iceUrlProblem(url, username, credential)) {
      std::string shown = url.substr(0, 64);
      if (auto at = shown.find('@'); at != std::string::npos) shown = "***" + shown.substr(at);
      if (url.size() > 64) shown += "\u2026";
      usable.skipped.push_back("ICE server skipped: " + escapeControlCharacters(shown) + " (" +
                               escapeControlCharacters(*problem) + ")");
    } else {
      usable.urls.push_back(url);
    }
  }
  if (urls.size() > kMaxUrls) {
    usable.skipped.push_back("ICE servers skipped: " + std::to_string(urls.size() - kMaxUrls) +
                             " beyond the first " + std::to_string(kMaxUrls));
  }
  return usable;
}

}  // namespace zul::webrtc_support
