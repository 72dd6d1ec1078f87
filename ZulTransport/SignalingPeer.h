#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

namespace zul {

// What the signalling client needs of the agent's WebRTC connections: the
// certificate fingerprint for the pairing offer, an offer for each phone that
// asks for a session, the phones' answers and candidates, and the ICE servers
// the rendezvous server hands out. Called on the client's read loop, one call
// at a time; a throw ends the signalling run, so refusals that are part of
// normal life (too many phones at once) are reported, not thrown.
class SignalingPeer {
 public:
  virtual ~SignalingPeer() = default;

  // Takes the offer's SDP text. May be called on the caller's thread or later
  // from another one; it throws when the signalling connection is gone.
  using OfferSink = std::function<void(const std::string& sdp)>;

  // "sha-256 " and 32 upper-case hexadecimal pairs joined by colons.
  virtual std::string dtlsFingerprint() const = 0;
  // The phone `peerId` asked for a session: offer it a connection (a new one,
  // or an ICE restart of the one it already has).
  virtual void offerTo(const std::string& peerId, OfferSink sendOffer) = 0;
  virtual void setRemoteAnswer(const std::string& peerId, const std::string& sdp) = 0;
  virtual void addRemoteCandidate(const std::string& peerId, const std::string& candidate,
                                  const std::string& sdpMid, int sdpMLineIndex) = 0;
  virtual void setIceServers(const std::vector<std::string>& urls, const std::string& username,
                             const std::string& credential) = 0;
};

}  // namespace zul
