#pragma once

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "ZulCore/Support/Bytes.h"
#include "ZulCore/Trust/IdentityKeyStore.h"
#include "ZulCore/Trust/PairingService.h"
#include "ZulCore/Trust/TrustedDevice.h"
#include "ZulTransport/SignalingError.h"
#include "ZulTransport/SignalingMessageHandler.h"
#include "ZulTransport/SignalingPeer.h"

namespace zul {

// The agent's link to the rendezvous server: registers pairing offers over
// HTTP(S), keeps one authenticated WebSocket open on which the server
// announces phones and relays offers, answers and candidates, answers pairing
// requests with signed grants, and reports the revoked devices every few
// seconds. TLS (https, wss) is verified against the system's trust store with
// host name checks; plain http and ws are for local development.
//
// The callbacks (SignalingEvents) are set before run() and called on the
// thread that runs it.
class AgentSignalingClient : public SignalingEvents {
 public:
  struct Options {
    // How often the revoked devices are reported while connected.
    std::chrono::milliseconds revokedSyncPeriod = std::chrono::seconds(5);
    // Bound of the whole pairing request: name lookup, connecting, TLS, reply.
    std::chrono::milliseconds pairingTimeout = std::chrono::seconds(60);
    // Bound of the name lookup, connecting, TLS and the WebSocket handshake
    // in run().
    std::chrono::milliseconds connectTimeout = std::chrono::seconds(30);
    // A connection that hears nothing for half of this is pinged; one that
    // stays silent for all of it is given up, and run() fails.
    std::chrono::milliseconds idleTimeout = std::chrono::seconds(30);
    // How long close() waits for the server to answer its close frame.
    std::chrono::milliseconds closeTimeout = std::chrono::seconds(1);
    // The time that goes into identity proofs and device records.
    PairingService::Clock now = std::chrono::system_clock::now;
    // Fresh random bytes; the system's secure generator when unset.
    std::function<Bytes(std::size_t)> randomBytes;
    // A PEM file of extra trusted certificates (tests with a private CA).
    std::string extraCaFile;
    // The SHA-256 fingerprint (hex, colons optional) of one server
    // certificate to trust as it is, whoever signed it and whatever it
    // names: a development server's own certificate.
    std::string trustedCertificateSha256;
  };

  AgentSignalingClient(std::string signalingBaseURL,
                       std::shared_ptr<const IdentityKeyStore> identity,
                       std::shared_ptr<const PairingService> pairing,
                       std::shared_ptr<SignalingPeer> peer, TrustedDeviceStore trustedDevices,
                       Options options);
  AgentSignalingClient(std::string signalingBaseURL,
                       std::shared_ptr<const IdentityKeyStore> identity,
                       std::shared_ptr<const PairingService> pairing,
                       std::shared_ptr<SignalingPeer> peer, TrustedDeviceStore trustedDevices);
  ~AgentSignalingClient();
  AgentSignalingClient(const AgentSignalingClient&) = delete;
  AgentSignalingClient& operator=(const AgentSignalingClient&) = delete;

  // Registers a pairing offer with the server (POST /v1/pairing) and returns
  // the payload with the server's secret and expiry, the expiry no later than
  // a locally made offer's. Until then, and unused, the offer lets one phone
  // pair. Blocks, at most the pairing time-out; close() ends it at once.
  // Throws SignalingError, SignalingTransportError, IdentityError,
  // PairingError.
  PairingQrPayload createPairing();

  // Connects and serves until the connection ends. Returns normally after
  // close(); throws when connecting, receiving or handling a message fails.
  // Always reports "disconnected" at its end once it reported "connected".
  // Reconnecting is the caller's business.
  void run();

  // The SHA-256 fingerprint ("AB:CD:…") of the certificate the server
  // offered when the last TLS handshake refused it as untrusted; nothing
  // when the last one succeeded or failed for another reason.
  std::optional<std::string> refusedCertificate() const;

  // From any thread: ends a run in progress promptly (a WebSocket close
  // frame, then the socket, at most the close time-out later) and a pairing
  // request in progress at once; later runs return at once and later
  // pairing requests fail.
  void close();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace zul
