#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "ZulCore/Media/CapturedFrame.h"
#include "ZulTransport/AgentPeerSession.h"
#include "ZulTransport/ControlSessionDispatcher.h"
#include "ZulTransport/SignalingPeer.h"

namespace zul {

// The agent's current WebRTC peer session as the signalling client and the
// control dispatcher see it. Every phone that becomes ready gets a fresh
// session (same certificate, the latest ICE servers): a connection that served
// one phone is never handed to the next, and TURN credentials that arrive
// while a phone is connected (a signalling reconnect) leave that phone's
// connection alone and apply from the next phone on.
//
// Callbacks of a replaced session are dropped, so a late "closed" from the
// previous phone cannot end the next phone's control session.
class PeerSessionLink final : public SignalingPeer, public ControlChannel {
 public:
  using MakeSession = std::function<std::unique_ptr<AgentPeerSession>()>;

  struct Callbacks {
    AgentPeerSession::MessageHandler onMessage;
    AgentPeerSession::StateHandler onIceConnectionStateChange;
    AgentPeerSession::LabelHandler onDataChannelOpen;
    AgentPeerSession::DiagnosticHandler onDiagnostic;
    // The previous phone's session was closed to make room for the next one.
    std::function<void()> onSessionReplaced;
  };

  // `makeSession` builds a session on the agent's certificate; it is called
  // once here (for the fingerprint; that session serves the first phone) and
  // once for every later phone. Until the first phone there is no current
  // session: frames are dropped and sends fail.
  PeerSessionLink(MakeSession makeSession, Callbacks callbacks);
  ~PeerSessionLink() override;

  // SignalingPeer
  std::string dtlsFingerprint() const override;
  bool hasDataChannels() const override;
  void createDataChannels() override;
  void restartIce() override;
  std::string createOfferWithAllCandidates() override;
  void setRemoteAnswer(const std::string& sdp) override;
  void addRemoteCandidate(const std::string& candidate, const std::string& sdpMid,
                          int sdpMLineIndex) override;
  void setIceServers(const std::vector<std::string>& urls, const std::string& username,
                     const std::string& credential) override;

  // ControlChannel
  void sendControlText(const std::string& text) override;

  void sendText(std::string_view channel, std::string_view payload);
  // Hands a captured frame to the current session, if any.
  void push(const CapturedFrame& frame, std::int64_t timestampNs);
  // Closes the current session (a session limit, the agent stopping).
  void close();

 private:
  std::shared_ptr<AgentPeerSession> current() const;
  void attachCallbacks(AgentPeerSession& session, std::uint64_t generation);

  MakeSession makeSession_;
  Callbacks callbacks_;
  std::string fingerprint_;
  // The session made at construction, until the first phone takes it; only
  // the signalling thread touches it.
  std::shared_ptr<AgentPeerSession> spare_;

  mutable std::mutex mutex_;
  std::shared_ptr<AgentPeerSession> session_;
  std::uint64_t generation_ = 0;
  AgentPeerSession::IceServerInfo iceServers_;
};

}  // namespace zul
