#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include "ZulCore/Support/Error.h"
#include "ZulTransport/DataChannelCatalog.h"

namespace zul {

class AgentPeerSessionError : public Error {
 public:
  enum class Case {
    unknownChannel,
    wrongChannelPayloadKind,
    messageTooLarge,
    channelNotOpen,
    sendFailed,
    offerCreationFailed,      // the library returned neither an offer nor an error
    missingLocalDescription,  // no local description after gathering
    gatheringTimedOut,        // ICE gathering did not finish in the time allowed
  };

  static AgentPeerSessionError unknownChannel(std::string_view label);
  static AgentPeerSessionError wrongChannelPayloadKind(std::string_view label);
  static AgentPeerSessionError messageTooLarge(std::string_view label);
  static AgentPeerSessionError channelNotOpen(std::string_view label);
  static AgentPeerSessionError sendFailed(std::string_view label);
  static AgentPeerSessionError offerCreationFailed();
  static AgentPeerSessionError missingLocalDescription();
  static AgentPeerSessionError gatheringTimedOut();

  Case kind() const { return kind_; }
  const std::string& label() const { return label_; }

  friend bool operator==(const AgentPeerSessionError& a, const AgentPeerSessionError& b) {
    return a.kind_ == b.kind_ && a.label_ == b.label_;
  }

 private:
  AgentPeerSessionError(Case kind, std::string_view name, std::string_view label);
  AgentPeerSessionError(Case kind, std::string_view name);

  Case kind_;
  std::string label_;
};

// The first steps of the sending gate, before a payload is written to a
// channel: the label is in the catalogue, the payload kind matches the
// channel, and the payload fits. The session then checks that it holds the
// channel and that the channel takes the buffer. Returns the channel's spec.
const DataChannelSpec& requireSendable(std::string_view label, bool binary, std::size_t byteCount);

}  // namespace zul
