#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ZulCore/Media/CapturedFrame.h"
#include "ZulCore/Support/Callback.h"
#include "ZulCore/Support/Error.h"
#include "ZulTransport/PeerVideoEncoding.h"

namespace zul {

class TransportError : public Error {
 public:
  enum class Case {
    peerConnectionCreationFailed,  // the factory made no connection
    offerCreationFailed,           // the library gave neither an offer nor an error
    missingLocalDescription,       // no local description after gathering
  };

  static TransportError peerConnectionCreationFailed();
  static TransportError offerCreationFailed();
  static TransportError missingLocalDescription();

  Case kind() const { return kind_; }

 private:
  TransportError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

// A send-only video peer connection for a browser on the local network: no
// pinned certificate, no data channels, no signalling. It makes one complete
// offer and takes the browser's answer.
class LocalOfferSession {
 public:
  // One ICE server made of all `iceServerURLs`, or none when it is empty.
  // Throws TransportError::peerConnectionCreationFailed.
  explicit LocalOfferSession(const std::vector<std::string>& iceServerURLs,
                             const PeerVideoEncoding& encoding = {});
  ~LocalOfferSession();
  LocalOfferSession(const LocalOfferSession&) = delete;
  LocalOfferSession& operator=(const LocalOfferSession&) = delete;

  // Each ICE connection state (its integer value), on the library's thread.
  Callback<int> onIceConnectionStateChange;

  // Blocks until gathering is complete; throws WebRtcError or TransportError.
  std::string createOfferWithGatheredCandidates();
  // Throws WebRtcError.
  void acceptAnswer(const std::string& sdp);
  // One captured frame, stamped with a monotonic time in nanoseconds. Returns
  // false when its pixels are in a form the video source cannot read.
  bool push(const CapturedFrame& frame, std::int64_t timestampNs);
  void close();

  class Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

// The names of the library's ICE connection states, for log lines: "new",
// "checking", "connected", "completed", "failed", "disconnected", "closed",
// "count", else "unknown".
std::string iceConnectionStateName(int state);

}  // namespace zul
