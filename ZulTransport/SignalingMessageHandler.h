#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ZulCore/Support/Callback.h"
#include "ZulCore/Trust/PairingService.h"
#include "ZulCore/Trust/TrustedDevice.h"
#include "ZulTransport/SignalingPeer.h"

namespace zul {

// The signalling client's callbacks, called on the client's own thread.
struct SignalingEvents {
  // "connected", "disconnected", "peer-ready", "waiting",
  // "session-limit-reached", "error:<code>" or "error:unknown".
  Callback<const std::string&> onStatusChanged;
  Callback<const std::string& /*peerId*/> onPeerReady;
  Callback<const std::string& /*peerId*/> onPeerLeft;
  // The peer that was active when the server refused another session.
  Callback<const std::optional<std::string>& /*peerId*/> onSessionLimitReached;
  Callback<const std::vector<TrustedDevice>&> onTrustedDevicesChanged;
  // One-line notes on requests the agent refused without ending the run.
  Callback<const std::string&> onDiagnostic;
};

// What the signalling client does with each message of the rendezvous
// server, apart from the socket: answers ready peers with offers, completes
// pairing requests with signed grants and stores the phone, passes answers,
// candidates and ICE servers to the peer session, and reports the revoked
// devices. Messages are handled one at a time by one thread.
class SignalingMessageHandler {
 public:
  static constexpr std::size_t maxMessageBytes = 262'144;

  using Send = std::function<void(const std::string& text)>;
  using Clock = std::function<std::chrono::system_clock::time_point()>;

  SignalingMessageHandler(std::shared_ptr<const PairingService> pairing,
                          std::shared_ptr<SignalingPeer> peer, TrustedDeviceStore trustedDevices,
                          const SignalingEvents& events,
                          Clock now = std::chrono::system_clock::now);

  // One incoming message, text or binary. Throws SignalingError
  // (messageTooLarge, malformedPairingRequest, pairingDeviceIdMismatch),
  // SignalingTransportError::invalidJson for text that is not JSON, and
  // whatever the store, the peer session or `send` throw.
  void handle(std::string_view message, const Send& send);

  // Sends "devices.revoked" with the ids of every revoked entry, in list order.
  void syncRevokedDevices(const Send& send);

  void reportStatus(const std::string& status) const;

  // How messages are sent from other threads while connected (offers made
  // off the read loop); throws when not connected. Without it, offers go
  // through the `send` of the message that asked for them.
  void setSendFromAnyThread(Send send);

  // A pairing offer this agent registered, live until `expiresAt` (Unix
  // seconds, inclusive). A pairing request is granted only against a live
  // offer, and each offer grants one phone: the server cannot pair phones
  // when no code is showing, nor two phones from one code.
  void addPairingOffer(std::int64_t expiresAt);

  std::optional<std::string> activePeerId() const;
  bool peerInitialized() const;

 private:
  void handleReadyPeer(const nlohmann::json& message, const Send& send);
  void handlePairingRequest(const nlohmann::json& message, const Send& send);
  void handlePeerLeft(const nlohmann::json& message);
  // The phone a relayed answer or candidate belongs to: its "peerId" when the
  // server adds one, else the phone announced last ("" when none was).
  std::string senderOf(const nlohmann::json& message) const;
  void handleSessionLimit();
  bool takeLiveOffer();

  std::shared_ptr<const PairingService> pairing_;
  std::shared_ptr<SignalingPeer> peer_;
  TrustedDeviceStore trustedDevices_;
  const SignalingEvents& events_;
  Clock now_;

  mutable std::mutex mutex_;
  bool peerInitialized_ = false;
  std::optional<std::string> activePeerId_;
  Send sendFromAnyThread_;
  std::vector<std::int64_t> offerExpiries_;  // unused offers, earliest first
};

}  // namespace zul
