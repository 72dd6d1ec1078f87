#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ZulCore/Media/CapturedFrame.h"
#include "ZulCore/Support/Bytes.h"
#include "ZulCore/Support/Callback.h"
#include "ZulCore/Trust/SecretStore.h"
#include "ZulTransport/AgentPeerSessionError.h"
#include "ZulTransport/PeerVideoEncoding.h"
#include "ZulTransport/PersistedDtlsCertificate.h"

namespace zul {

// The agent's side of one WebRTC peer connection to a phone: the outgoing
// video track fed with captured frames and the five data channels of the
// catalogue. The agent always offers, with every ICE candidate gathered into
// the offer.
//
// Callbacks run on the library's signalling thread; they may send, but must
// not call the blocking operations (offer, answer) from there.
class AgentPeerSession {
  // Shared with the library's observers, which may outlive this object.
  struct Events {
    Callback<const std::string& /*label*/, const Bytes& /*data*/, bool /*isBinary*/> onMessage;
    Callback<int /*state*/> onIceConnectionStateChange;
    Callback<const std::string& /*label*/> onDataChannelOpen;
    Callback<const std::string& /*line*/> onDiagnostic;
  };
  std::shared_ptr<Events> events_ = std::make_shared<Events>();

 public:
  // On a certificate loaded once for the run (PersistedDtlsCertificate), so
  // that every phone's session presents the same one without reading the
  // store again. Throws DtlsCertificateError when the library cannot take it
  // and WebRtcError when the factory makes no peer connection.
  explicit AgentPeerSession(const DtlsCertificate& certificate,
                            const PeerVideoEncoding& encoding = {});
  // Loads or creates the certificate in `certificateStore` (account
  // "dtls-certificate") first; throws what loading throws, as above.
  explicit AgentPeerSession(const SecretStore& certificateStore);
  ~AgentPeerSession();
  AgentPeerSession(const AgentPeerSession&) = delete;
  AgentPeerSession& operator=(const AgentPeerSession&) = delete;

  const std::string& dtlsFingerprint() const;

  // Set before the connection is used.
  decltype(Events::onMessage)& onMessage = events_->onMessage;
  decltype(Events::onIceConnectionStateChange)& onIceConnectionStateChange =
      events_->onIceConnectionStateChange;
  decltype(Events::onDataChannelOpen)& onDataChannelOpen = events_->onDataChannelOpen;
  decltype(Events::onDiagnostic)& onDiagnostic = events_->onDiagnostic;

  // Replaces the connection (and forgets its channels) with one that uses a
  // single ICE server made of the usable `urls`, or none when there is none.
  // Each URL the library would refuse (scheme, host, port, transport,
  // control characters, length, TURN without a user name, beyond the first
  // 32) is left out with a diagnostic line that never shows the credential.
  void configureIceServers(const std::vector<std::string>& urls, const std::string& username,
                           const std::string& credential);
  void createDataChannels();
  // Blocks until the offer carries every gathered candidate, at most
  // `gatheringLimit` when given (then gatheringTimedOut). Throws WebRtcError
  // or AgentPeerSessionError.
  std::string createOfferWithGatheredCandidates(
      std::optional<std::chrono::milliseconds> gatheringLimit = std::nullopt);
  // Throws WebRtcError.
  void acceptAnswer(const std::string& sdp);
  // Failures only produce a diagnostic.
  void addRemoteIceCandidate(const std::string& candidate, const std::optional<std::string>& sdpMid,
                             std::int32_t sdpMLineIndex);
  // Through the sending gate; throw AgentPeerSessionError.
  void sendText(std::string_view channel, std::string_view payload);
  void sendBinary(std::string_view channel, const Bytes& payload);
  // One captured frame, stamped with a monotonic time in nanoseconds. NV12
  // pixels in the frame's surface or data are held, not copied, until the
  // encoder is done with them.
  void push(const CapturedFrame& frame, std::int64_t timestampNs);
  void restartIce();
  // Closes the connection; the channel map stays as it is.
  void close();

  // What the session holds, for its owner's checks and for tests.
  struct ChannelInfo {
    std::string label;
    bool ordered = true;
    int maxRetransmits = -1;  // -1: fully reliable
    std::string protocol;
    bool negotiated = false;
    int state = 0;  // the library's ready state
  };
  struct TrackInfo {
    std::string trackId;
    std::vector<std::string> streamIds;
    bool detailedContent = false;  // marked as text and edges
    bool keepsResolution = false;  // a tight link costs frame rate and quality, not size
  };
  struct IceServerInfo {
    std::vector<std::string> urls;
    std::string username;
    std::string credential;
  };
  std::vector<ChannelInfo> channels() const;
  // Bytes queued on a channel and not yet sent (0 for a channel it does not
  // hold): large content waits for this to drain, so that no queue grows
  // without bound.
  std::uint64_t bufferedAmount(std::string_view label) const;
  std::vector<TrackInfo> videoTracks() const;
  std::vector<IceServerInfo> iceServers() const;

  class Impl;

 private:
  std::shared_ptr<Impl> impl_;
};

}  // namespace zul
