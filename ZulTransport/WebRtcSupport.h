#pragma once

// Private to ZulTransport: the pieces that the peer sessions share on top of
// the WebRTC library. Never included by a public header.

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "ZulCore/Media/CapturedFrame.h"
#include "ZulTransport/PeerVideoEncoding.h"
#include "api/peer_connection_interface.h"
#include "api/video/video_frame_buffer.h"
#include "media/base/adapted_video_track_source.h"
#include "rtc_base/thread.h"

namespace zul::webrtc_support {

// Once per process: the library's SSL set-up and its log level. The library
// logs nothing unless ZUL_WEBRTC_LOG names a level ("verbose", "info",
// "warning", "error").
void initialize();

// The library's threads and a factory built with our video encoder factory
// (see PeerVideoEncoding) and the default decoder factory (no audio device:
// the agent sends video only).
class Runtime {
 public:
  explicit Runtime(const PeerVideoEncoding& encoding = {});
  ~Runtime();
  Runtime(const Runtime&) = delete;
  Runtime& operator=(const Runtime&) = delete;

  webrtc::PeerConnectionFactoryInterface& factory() const { return *factory_; }
  const rtc::scoped_refptr<webrtc::PeerConnectionFactoryInterface>& factoryRef() const {
    return factory_;
  }
  rtc::Thread& signalingThread() const { return *signaling_; }

 private:
  std::unique_ptr<rtc::Thread> network_;
  std::unique_ptr<rtc::Thread> worker_;
  std::unique_ptr<rtc::Thread> signaling_;
  rtc::scoped_refptr<webrtc::PeerConnectionFactoryInterface> factory_;
};

// The video source that captured frames are pushed into.
class PushedVideoSource : public rtc::AdaptedVideoTrackSource {
 public:
  // Pictures larger than 1920x1080 are scaled down to fit, shape kept.
  PushedVideoSource();
  // Returns false when the frame's pixels are in a form it cannot read.
  bool push(const CapturedFrame& frame, std::int64_t timestampNs);
  void pushBuffer(rtc::scoped_refptr<webrtc::VideoFrameBuffer> buffer, std::int64_t timestampNs);

  static constexpr int maxPixels = 1920 * 1080;

  SourceState state() const override { return kLive; }
  bool remote() const override { return false; }
  bool is_screencast() const override { return false; }
  absl::optional<bool> needs_denoising() const override { return false; }
};

// The frame's pixels as a frame buffer: NV12 (in an NV12 surface or in the
// frame's data) is held as it is, packed BGRA becomes I420; null when the
// pixels are neither, or smaller than the announced size.
rtc::scoped_refptr<webrtc::VideoFrameBuffer> toFrameBuffer(const CapturedFrame& frame);

// Completes once when ICE gathering reports complete and never resets.
class GatheringLatch {
 public:
  void complete();
  // Before an ICE restart, whose offer gathers afresh.
  void reset();
  void wait();
  // False when gathering is still going after `limit`.
  bool waitFor(std::chrono::milliseconds limit);
  bool isComplete();

 private:
  std::mutex mutex_;
  std::condition_variable done_;
  bool complete_ = false;
};

// Blocking forms of the library's asynchronous calls. Library failures throw
// WebRtcError; `createOffer` returns null when the library gives neither an
// offer nor an error.
std::unique_ptr<webrtc::SessionDescriptionInterface> createOffer(
    webrtc::PeerConnectionInterface& connection,
    const webrtc::PeerConnectionInterface::RTCOfferAnswerOptions& options);
void setLocalDescription(webrtc::PeerConnectionInterface& connection,
                         std::unique_ptr<webrtc::SessionDescriptionInterface> description);
void setRemoteAnswer(webrtc::PeerConnectionInterface& connection, const std::string& sdp);
// The current local description's SDP, read on the signalling thread.
std::optional<std::string> localDescriptionSdp(rtc::Thread& signaling,
                                               webrtc::PeerConnectionInterface& connection);

// Where the bandwidth estimate of a new connection starts.
inline constexpr int startBitrateBps = 2'000'000;
// The most a screen is sent at.
inline constexpr int maxBitrateBps = 8'000'000;

// Sets the sender of a screen: resolution kept, rate up to maxBitrateBps.
// Again after each negotiation, which forgets them. A problem text, or nothing.
std::optional<std::string> keepScreenSending(webrtc::RtpSenderInterface& sender);

// Adds a video track with id "zul-video0" in stream "zul-stream0" and puts
// H.264 first among its codecs (the default factory offers VP8 first); the
// connection's estimate starts at startBitrateBps.
// Returns a problem text, or nothing.
std::optional<std::string> addVideoTrack(webrtc::PeerConnectionFactoryInterface& factory,
                                         webrtc::PeerConnectionInterface& connection,
                                         const rtc::scoped_refptr<PushedVideoSource>& source);

// The ICE server URLs that the library will take, with one user name and
// credential for all of them, and a line for each URL left out: not a string
// the library parses (scheme stun, stuns, turn or turns; host; port
// 1..65535; "?transport=udp|tcp"), control characters, over 512 bytes, or a
// TURN URL without a usable user name and credential; URLs beyond the first
// 32 get one line together. The lines show the URL shortened and never the
// credential.
struct UsableIceServers {
  std::vector<std::string> urls;
  std::vector<std::string> skipped;
};
UsableIceServers usableIceServers(const std::vector<std::string>& urls, const std::string& username,
                                  const std::string& credential);

// The offer options of a send-only peer: receive neither audio nor video.
webrtc::PeerConnectionInterface::RTCOfferAnswerOptions sendOnlyOfferOptions();

}  // namespace zul::webrtc_support
