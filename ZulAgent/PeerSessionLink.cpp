#include "ZulAgent/PeerSessionLink.h"

#include <utility>

#include "ZulAgent/FramePixels.h"
#include "ZulTransport/AgentPeerSessionError.h"

namespace zul {

PeerSessionLink::PeerSessionLink(MakeSession makeSession, Callbacks callbacks)
    : makeSession_(std::move(makeSession)), callbacks_(std::move(callbacks)) {
  // Made now for its certificate's fingerprint, kept for the first phone.
  spare_ = makeSession_();
  fingerprint_ = spare_->dtlsFingerprint();
}

PeerSessionLink::~PeerSessionLink() { close(); }

std::shared_ptr<AgentPeerSession> PeerSessionLink::current() const {
  std::lock_guard lock(mutex_);
  return session_;
}

void PeerSessionLink::attachCallbacks(AgentPeerSession& session, std::uint64_t generation) {
  // Each callback first checks that its session is still the current one.
  auto live = [this, generation] {
    std::lock_guard lock(mutex_);
    return generation == generation_;
  };
  session.setOnMessage([this, live](const std::string& label, const Bytes& data, bool isBinary) {
    if (live() && callbacks_.onMessage) callbacks_.onMessage(label, data, isBinary);
  });
  session.setOnIceConnectionStateChange([this, live](int state) {
    if (live() && callbacks_.onIceConnectionStateChange) {
      callbacks_.onIceConnectionStateChange(state);
    }
  });
  session.setOnDataChannelOpen([this, live](const std::string& label) {
    if (live() && callbacks_.onDataChannelOpen) callbacks_.onDataChannelOpen(label);
  });
  session.setOnDiagnostic([this, live](const std::string& line) {
    if (live() && callbacks_.onDiagnostic) callbacks_.onDiagnostic(line);
  });
}

std::string PeerSessionLink::dtlsFingerprint() const { return fingerprint_; }

// Always false: each ready phone is offered a new connection.
bool PeerSessionLink::hasDataChannels() const { return false; }

void PeerSessionLink::createDataChannels() {
  std::shared_ptr<AgentPeerSession> fresh = std::exchange(spare_, nullptr);
  if (!fresh) fresh = makeSession_();
  AgentPeerSession::IceServerInfo servers;
  std::uint64_t generation;
  {
    std::lock_guard lock(mutex_);
    servers = iceServers_;
    generation = generation_ + 1;
  }
  attachCallbacks(*fresh, generation);
  fresh->configureIceServers(servers.urls, servers.username, servers.credential);
  fresh->createDataChannels();

  std::shared_ptr<AgentPeerSession> previous;
  {
    std::lock_guard lock(mutex_);
    generation_ = generation;
    previous = std::exchange(session_, fresh);
  }
  if (previous) previous->close();
  if (callbacks_.onSessionReplaced) callbacks_.onSessionReplaced();
}

void PeerSessionLink::restartIce() {
  if (auto session = current()) session->restartIce();
}

std::string PeerSessionLink::createOfferWithAllCandidates() {
  auto session = current();
  if (!session) throw AgentPeerSessionError::missingLocalDescription();
  return session->createOfferWithGatheredCandidates();
}

void PeerSessionLink::setRemoteAnswer(const std::string& sdp) {
  if (auto session = current()) session->acceptAnswer(sdp);
}

void PeerSessionLink::addRemoteCandidate(const std::string& candidate, const std::string& sdpMid,
                                         int sdpMLineIndex) {
  if (auto session = current()) {
    session->addRemoteIceCandidate(
        candidate, sdpMid.empty() ? std::nullopt : std::optional<std::string>(sdpMid),
        sdpMLineIndex);
  }
}

void PeerSessionLink::setIceServers(const std::vector<std::string>& urls,
                                    const std::string& username, const std::string& credential) {
  std::lock_guard lock(mutex_);
  iceServers_ = {urls, username, credential};
}

void PeerSessionLink::sendControlText(const std::string& text) { sendText("control", text); }

void PeerSessionLink::sendText(std::string_view channel, std::string_view payload) {
  auto session = current();
  if (!session) throw AgentPeerSessionError::channelNotOpen(std::string(channel));
  session->sendText(channel, payload);
}

void PeerSessionLink::push(const CapturedFrame& frame, std::int64_t timestampNs) {
  auto session = current();
  if (!session) return;
  if (auto pixels = nv12PixelsOf(frame)) {
    session->push(*pixels, timestampNs);
  } else {
    session->push(frame, timestampNs);
  }
}

void PeerSessionLink::close() {
  if (auto session = current()) session->close();
}

}  // namespace zul
