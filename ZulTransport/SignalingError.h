#pragma once

#include <cstdint>
#include <string>

#include "ZulCore/Support/Error.h"

namespace zul {

// The signalling client's own failures.
class SignalingError : public Error {
 public:
  enum class Case {
    pairingRequestFailed,      // the pairing response was not 2xx
    malformedPairingResponse,  // not a JSON object with "secret" and "expiresAt"
    malformedPairingRequest,   // a pairing request lacked "deviceId" or "devicePublicKey"
    pairingDeviceIdMismatch,   // the device identifier does not belong to the key
    notConnected,              // send without a WebSocket
    messageTooLarge,           // an incoming message over 262,144 bytes
    invalidSignalingURL,       // the server address cannot be formed or used
    pairingNotOffered,         // a pairing request while no offer of ours was live and unused
  };

  static SignalingError pairingRequestFailed(int status);
  static SignalingError malformedPairingResponse();
  static SignalingError malformedPairingRequest();
  static SignalingError pairingDeviceIdMismatch();
  static SignalingError notConnected();
  static SignalingError messageTooLarge();
  static SignalingError invalidSignalingURL(const std::string& url);
  static SignalingError pairingNotOffered();

  Case kind() const { return kind_; }

 private:
  SignalingError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

// Failures below the signalling protocol: the network, TLS, the WebSocket
// handshake, a message that is not JSON. Passed to the caller as they are.
class SignalingTransportError : public Error {
 public:
  enum class Case {
    transportFailed,  // resolving, connecting, TLS, HTTP or WebSocket I/O failed
    invalidJson,      // an incoming message is not JSON text
  };

  static SignalingTransportError transportFailed(const std::string& operation,
                                                 const std::string& reason);
  static SignalingTransportError invalidJson(const std::string& reason);

  Case kind() const { return kind_; }

 private:
  SignalingTransportError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

}  // namespace zul
