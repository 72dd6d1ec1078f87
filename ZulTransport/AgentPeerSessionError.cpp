#include "ZulTransport/AgentPeerSessionError.h"

namespace zul {

AgentPeerSessionError::AgentPeerSessionError(Case kind, std::string_view name,
                                             std::string_view label)
    : Error(formatErrorCase(name, {field(label)})), kind_(kind), label_(label) {}

AgentPeerSessionError::AgentPeerSessionError(Case kind, std::string_view name)
    : Error(formatErrorCase(name)), kind_(kind) {}

AgentPeerSessionError AgentPeerSessionError::unknownChannel(std::string_view label) {
  return {Case::unknownChannel, "unknownChannel", label};
}
AgentPeerSessionError AgentPeerSessionError::wrongChannelPayloadKind(std::string_view label) {
  return {Case::wrongChannelPayloadKind, "wrongChannelPayloadKind", label};
}
AgentPeerSessionError AgentPeerSessionError::messageTooLarge(std::string_view label) {
  return {Case::messageTooLarge, "messageTooLarge", label};
}
AgentPeerSessionError AgentPeerSessionError::channelNotOpen(std::string_view label) {
  return {Case::channelNotOpen, "channelNotOpen", label};
}
AgentPeerSessionError AgentPeerSessionError::sendFailed(std::string_view label) {
  return {Case::sendFailed, "sendFailed", label};
}
AgentPeerSessionError AgentPeerSessionError::offerCreationFailed() {
  return {Case::offerCreationFailed, "offerCreationFailed"};
}
AgentPeerSessionError AgentPeerSessionError::gatheringTimedOut() {
  return {Case::gatheringTimedOut, "gatheringTimedOut"};
}
AgentPeerSessionError AgentPeerSessionError::missingLocalDescription() {
  return {Case::missingLocalDescription, "missingLocalDescription"};
}

const DataChannelSpec& requireSendable(std::string_view label, bool binary, std::size_t byteCount) {
  const DataChannelSpec* spec = DataChannelCatalog::spec(label);
  if (!spec) throw AgentPeerSessionError::unknownChannel(label);
  if (spec->binary != binary) throw AgentPeerSessionError::wrongChannelPayloadKind(label);
  if (static_cast<std::int64_t>(byteCount) > spec->maxMessageBytes) {
    throw AgentPeerSessionError::messageTooLarge(label);
  }
  return *spec;
}

}  // namespace zul
