#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ZulCore/Support/Callback.h"
#include "ZulCore/Support/Error.h"
#include "ZulCore/Trust/ControlSessionLease.h"
#include "ZulCore/Trust/DevicePermission.h"
#include "ZulCore/Trust/TrustedDevice.h"
#include "ZulTransport/MessageRouter.h"

namespace zul {

class ControlSessionError : public Error {
 public:
  enum class Case {
    missingField,
    identityMismatch,
    deviceNotTrusted,
    fingerprintMismatch,
    invalidSignature,
    anotherSessionActive,
    noActiveSession,
    computerLocked,    // the screen is locked and the device lacks `unattended`
    agentPaused,       // paused at the computer: no phone connects
    connectionDenied,  // the person at the computer did not let the phone in
  };

  static ControlSessionError missingField(std::string_view key);
  static ControlSessionError identityMismatch();
  static ControlSessionError deviceNotTrusted();
  static ControlSessionError fingerprintMismatch();
  static ControlSessionError invalidSignature();
  static ControlSessionError anotherSessionActive();
  static ControlSessionError noActiveSession();
  static ControlSessionError computerLocked();
  static ControlSessionError agentPaused();
  static ControlSessionError connectionDenied();

  Case kind() const { return kind_; }

 private:
  ControlSessionError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

// What the dispatcher needs of the peer connection: the certificate the hello
// must name, and the control channel for replies.
class ControlChannel {
 public:
  virtual ~ControlChannel() = default;
  virtual std::string dtlsFingerprint() const = 0;
  // Writes text to the "control" channel through the sending gate; throws on refusal.
  virtual void sendControlText(const std::string& text) = 0;
};

// What the dispatchers of all phone connections share for the process: the
// single control lease, and the nonces of the hellos already accepted (a
// nonce is good for one hello per run, so a recorded hello cannot be played
// back, not even on a fresh connection).
class ControlSessionShared {
 public:
  ControlSessionLease lease;
  // The shells this computer offers, told to a phone allowed `shell`.
  std::vector<std::string> shells;
  // Whether the screen is locked now: only a device holding `unattended`
  // connects then. Set before the first phone.
  std::function<bool()> screenLocked;
  // Whether the person at the computer paused the agent: no device connects
  // then. Set before the first phone.
  std::function<bool()> paused;
  // Whether the person at the computer lets a device without `unattended`
  // in (the agent may ask them first, and wait); unset: every device.
  std::function<bool(const std::string& deviceId)> admit;
  // False when this device already used this nonce.
  bool useNonce(const std::string& deviceId, const std::string& nonce);

 private:
  std::mutex mutex_;
  std::set<std::string> usedNonces_;
};

// The gate between the data channels and everything that acts on the
// computer: authenticates the phone's signed hello against the trusted
// devices and the DTLS fingerprint, holds the single control lease, and
// passes each message of the established session on with its permissions.
class ControlSessionDispatcher {
 public:
  // One dispatcher per phone connection; `shared` is common to all of them
  // (a fresh one when absent).
  ControlSessionDispatcher(std::shared_ptr<ControlChannel> peer, TrustedDeviceStore trustedDevices,
                           std::shared_ptr<ControlSessionShared> shared = nullptr);

  Callback<const std::string& /*sessionId*/, const std::string& /*deviceId*/> onSessionEstablished;
  Callback<const RoutedMessage&, const PermissionGate&> onAuthenticatedMessage;
  Callback<> onSessionReleased;
  Callback<const std::string&> onDiagnostic;

  // Every text message received on any data channel.
  void handle(std::string_view channel, std::string_view data);

  // The device signalling announced for the connecting phone; a hello from
  // any other device is refused.
  void setExpectedPeerDeviceId(std::optional<std::string> deviceId);
  std::optional<std::string> activeSessionId() const;
  // The established session's permissions; nothing without a session.
  std::optional<PermissionGate> activePermissions() const;
  // The person at the computer granted or withdrew a permission of the
  // device in session: its later requests are checked against these.
  void updatePermissions(const PermissionGate& permissions);
  void releaseActiveSession();
  // Answers a request of the session that failed after it was passed on:
  // "control.error" with "PERMISSION_DENIED" for a missing permission,
  // "INVALID_MESSAGE" for anything else.
  void refuse(const std::string& sessionId, const std::exception& error);

  // "ZUL-CONTROL-HELLO-1\n" sessionId \n deviceId \n nonce.
  static std::string helloTranscript(std::string_view sessionId, std::string_view deviceId,
                                     std::string_view nonce);

 private:
  void authenticate(const RoutedMessage& hello);
  void sendError(const std::string& sessionId, const std::exception& error);
  void send(const nlohmann::json& message);
  void diagnose(const std::string& line) const;

  std::shared_ptr<ControlChannel> peer_;
  TrustedDeviceStore trustedDevices_;
  std::shared_ptr<ControlSessionShared> shared_;

  mutable std::mutex mutex_;
  std::optional<std::string> sessionId_;
  std::optional<std::string> deviceId_;
  std::optional<PermissionGate> permissions_;
  std::optional<std::string> expectedPeerDeviceId_;
};

}  // namespace zul
