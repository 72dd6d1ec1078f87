#include "ZulTransport/WebRTCSmokeTest.h"

#include "ZulTransport/WebRtcSupport.h"

namespace zul {

SmokeTestError SmokeTestError::peerConnectionCreationFailed() {
  return SmokeTestError(formatErrorCase("peerConnectionCreationFailed"));
}

namespace {

class NoOpObserver : public webrtc::PeerConnectionObserver {
 public:
  void OnSignalingChange(webrtc::PeerConnectionInterface::SignalingState) override {}
  void OnDataChannel(rtc::scoped_refptr<webrtc::DataChannelInterface>) override {}
  void OnRenegotiationNeeded() override {}
  void OnIceGatheringChange(webrtc::PeerConnectionInterface::IceGatheringState) override {}
  void OnIceCandidate(const webrtc::IceCandidateInterface*) override {}
};

}  // namespace

namespace WebRTCSmokeTest {

void run() {
  webrtc_support::Runtime runtime;
  NoOpObserver observer;
  webrtc::PeerConnectionInterface::RTCConfiguration config;
  config.sdp_semantics = webrtc::SdpSemantics::kUnifiedPlan;
  auto result = runtime.factory().CreatePeerConnectionOrError(
      config, webrtc::PeerConnectionDependencies(&observer));
  if (!result.ok()) throw SmokeTestError::peerConnectionCreationFailed();
  auto connection = result.MoveValue();
  connection->Close();
}

}  // namespace WebRTCSmokeTest
}  // namespace zul
