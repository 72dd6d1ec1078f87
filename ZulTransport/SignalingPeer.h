#pragma once

#include <string>
#include <vector>

namespace zul {

// What the signalling client needs of the WebRTC peer session: its
// certificate fingerprint for the pairing offer, data channels, offers with
// every candidate gathered, the phone's answer and candidates, and the ICE
// servers the rendezvous server hands out. Called on the client's own thread,
// one call at a time; any call may throw, which ends the signalling run.
class SignalingPeer {
 public:
  virtual ~SignalingPeer() = default;

  // "sha-256 " and 32 upper-case hexadecimal pairs joined by colons.
  virtual std::string dtlsFingerprint() const = 0;
  virtual bool hasDataChannels() const = 0;
  virtual void createDataChannels() = 0;
  // Asks the existing connection to restart ICE for the next phone.
  virtual void restartIce() = 0;
  // Blocks until ICE gathering has finished; the SDP text of the offer.
  virtual std::string createOfferWithAllCandidates() = 0;
  virtual void setRemoteAnswer(const std::string& sdp) = 0;
  virtual void addRemoteCandidate(const std::string& candidate, const std::string& sdpMid,
                                  int sdpMLineIndex) = 0;
  virtual void setIceServers(const std::vector<std::string>& urls, const std::string& username,
                             const std::string& credential) = 0;
};

}  // namespace zul
