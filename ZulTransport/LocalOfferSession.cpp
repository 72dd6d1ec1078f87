#include "ZulTransport/LocalOfferSession.h"

#include <mutex>

#include "ZulTransport/WebRtcSupport.h"

namespace zul {

TransportError TransportError::peerConnectionCreationFailed() {
  return {Case::peerConnectionCreationFailed, formatErrorCase("peerConnectionCreationFailed")};
}
TransportError TransportError::offerCreationFailed() {
  return {Case::offerCreationFailed, formatErrorCase("offerCreationFailed")};
}
TransportError TransportError::missingLocalDescription() {
  return {Case::missingLocalDescription, formatErrorCase("missingLocalDescription")};
}

std::string iceConnectionStateName(int state) {
  static constexpr const char* names[] = {"new",    "checking",     "connected", "completed",
                                          "failed", "disconnected", "closed",    "count"};
  if (state < 0 || state > 7) return "unknown";
  return names[state];
}

namespace {

// Forwards ICE connection states and completes the gathering latch; every
// other event is ignored.
class EventObserver : public webrtc::PeerConnectionObserver {
 public:
  explicit EventObserver(const Callback<int>& onStateChange) : onStateChange_(onStateChange) {}
  webrtc_support::GatheringLatch& latch() { return latch_; }

  void OnIceGatheringChange(webrtc::PeerConnectionInterface::IceGatheringState state) override {
    if (state == webrtc::PeerConnectionInterface::kIceGatheringComplete) latch_.complete();
  }
  void OnIceConnectionChange(webrtc::PeerConnectionInterface::IceConnectionState state) override {
    onStateChange_(static_cast<int>(state));
  }
  void OnSignalingChange(webrtc::PeerConnectionInterface::SignalingState) override {}
  void OnDataChannel(rtc::scoped_refptr<webrtc::DataChannelInterface>) override {}
  void OnRenegotiationNeeded() override {}
  void OnIceCandidate(const webrtc::IceCandidateInterface*) override {}

 private:
  const Callback<int>& onStateChange_;
  webrtc_support::GatheringLatch latch_;
};

}  // namespace

class LocalOfferSession::Impl {
 public:
  Impl(const std::vector<std::string>& urls, const PeerVideoEncoding& encoding,
       const Callback<int>& onStateChange)
      : runtime(encoding), observer(onStateChange) {
    source = rtc::make_ref_counted<webrtc_support::PushedVideoSource>();
    webrtc::PeerConnectionInterface::RTCConfiguration config;
    config.sdp_semantics = webrtc::SdpSemantics::kUnifiedPlan;
    if (!urls.empty()) {
      webrtc::PeerConnectionInterface::IceServer server;
      server.urls = urls;
      config.servers.push_back(std::move(server));
    }
    auto result = runtime.factory().CreatePeerConnectionOrError(
        config, webrtc::PeerConnectionDependencies(&observer));
    if (!result.ok()) throw TransportError::peerConnectionCreationFailed();
    connection = result.MoveValue();
    // A track that cannot get H.264 first still carries video.
    webrtc_support::addVideoTrack(runtime.factory(), *connection, source);
  }

  ~Impl() {
    connection->Close();
    runtime.signalingThread().BlockingCall([] {});
    connection = nullptr;
  }

  webrtc_support::Runtime runtime;
  EventObserver observer;
  rtc::scoped_refptr<webrtc_support::PushedVideoSource> source;
  rtc::scoped_refptr<webrtc::PeerConnectionInterface> connection;
};

LocalOfferSession::LocalOfferSession(const std::vector<std::string>& iceServerURLs,
                                     const PeerVideoEncoding& encoding)
    : impl_(std::make_unique<Impl>(iceServerURLs, encoding, onIceConnectionStateChange)) {}

LocalOfferSession::~LocalOfferSession() = default;

std::string LocalOfferSession::createOfferWithGatheredCandidates() {
  auto offer =
      webrtc_support::createOffer(*impl_->connection, webrtc_support::sendOnlyOfferOptions());
  if (!offer) throw TransportError::offerCreationFailed();
  webrtc_support::setLocalDescription(*impl_->connection, std::move(offer));
  impl_->observer.latch().wait();
  auto sdp =
      webrtc_support::localDescriptionSdp(impl_->runtime.signalingThread(), *impl_->connection);
  if (!sdp) throw TransportError::missingLocalDescription();
  return *sdp;
}

void LocalOfferSession::acceptAnswer(const std::string& sdp) {
  webrtc_support::setRemoteAnswer(*impl_->connection, sdp);
}

bool LocalOfferSession::push(const CapturedFrame& frame, std::int64_t timestampNs) {
  return impl_->source->push(frame, timestampNs);
}

void LocalOfferSession::close() { impl_->connection->Close(); }

}  // namespace zul
