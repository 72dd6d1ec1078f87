#include "ZulTransport/SignalingError.h"

namespace zul {

SignalingError SignalingError::pairingRequestFailed(int status) {
  return {Case::pairingRequestFailed,
          formatErrorCase("pairingRequestFailed", {field("status", status)})};
}
SignalingError SignalingError::malformedPairingResponse() {
  return {Case::malformedPairingResponse, "malformedPairingResponse"};
}
SignalingError SignalingError::malformedPairingRequest() {
  return {Case::malformedPairingRequest, "malformedPairingRequest"};
}
SignalingError SignalingError::pairingDeviceIdMismatch() {
  return {Case::pairingDeviceIdMismatch, "pairingDeviceIdMismatch"};
}
SignalingError SignalingError::notConnected() { return {Case::notConnected, "notConnected"}; }
SignalingError SignalingError::messageTooLarge() {
  return {Case::messageTooLarge, "messageTooLarge"};
}
SignalingError SignalingError::invalidSignalingURL(const std::string& url) {
  return {Case::invalidSignalingURL, formatErrorCase("invalidSignalingURL", {field(url)})};
}
SignalingError SignalingError::pairingNotOffered() {
  return {Case::pairingNotOffered, "pairingNotOffered"};
}

SignalingTransportError SignalingTransportError::transportFailed(const std::string& operation,
                                                                 const std::string& reason) {
  return {Case::transportFailed, formatErrorCase("transportFailed", {field("operation", operation),
                                                                     field("reason", reason)})};
}
SignalingTransportError SignalingTransportError::invalidJson(const std::string& reason) {
  return {Case::invalidJson, formatErrorCase("invalidJson", {field("reason", reason)})};
}

}  // namespace zul
