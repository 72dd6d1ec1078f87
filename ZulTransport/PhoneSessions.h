#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <string_view>

#include "ZulCore/Media/CapturedFrame.h"
#include "ZulCore/Support/Bytes.h"
#include "ZulCore/Support/Callback.h"
#include "ZulCore/Trust/DevicePermission.h"
#include "ZulTransport/MessageRouter.h"
#include "ZulTransport/SignalingPeer.h"

namespace zul {

// The phones as the rest of the agent sees them: signalling announces them,
// each proves itself with its signed hello, and at most one holds the session
// that may act on the computer. Every end of that session (its connection
// lost, replaced by another phone, ended from here, the agent stopping) is
// told through `onSessionEnded`, or through `onSessionEstablished` of the
// phone that replaced it.
class PhoneSessions : public SignalingPeer {
 public:
  Callback<const std::string& /*sessionId*/, const std::string& /*deviceId*/> onSessionEstablished;
  // The session ended and no phone holds one now.
  Callback<> onSessionEnded;
  // Each message of the session in progress, with the phone's permissions.
  Callback<const RoutedMessage&, const PermissionGate&> onAuthenticatedMessage;
  // Each binary message of the session in progress (the "files" channel),
  // with the phone's permissions; binary messages of a connection without a
  // session are dropped.
  Callback<const std::string& /*channel*/, const Bytes&, const PermissionGate&> onBinaryMessage;
  Callback<const std::string& /*line*/> onDiagnostic;

  // The phone in session.
  virtual std::optional<std::string> activeSessionId() const = 0;
  virtual std::optional<std::string> activeDeviceId() const = 0;
  // What the phone in session holds, set with its session when its hello was
  // accepted (before the owner hears of the session).
  virtual std::optional<PermissionGate> activePermissions() const = 0;
  // Sends to the phone in session; throws AgentPeerSessionError.
  virtual void sendToSession(std::string_view channel, std::string_view payload) = 0;
  virtual void sendBinaryToSession(std::string_view channel, const Bytes& payload) = 0;
  // Answers a failed request of the session `sessionId`, if it is still live
  // ("control.error").
  virtual void refuse(const std::string& sessionId, const std::exception& error) = 0;
  // Bytes waiting to be sent to the phone in session on a channel.
  virtual std::uint64_t bufferedAmount(std::string_view channel) const = 0;
  // Hands a captured frame to the phone in session only.
  virtual void push(const CapturedFrame& frame, std::int64_t timestampNs) = 0;

  // New permissions for the device in session (granted or withdrawn at the
  // computer).
  virtual void updateSessionPermissions(const PermissionGate& permissions) = 0;
  // Ends the session and closes its connection (a revoked device, the
  // person at the computer).
  virtual void endSession() = 0;
  // The device left signalling: a connection still waiting for its hello
  // is dropped; one in session lives on while its connection lasts.
  virtual void peerLeft(const std::string& deviceId) = 0;
  // Ends everything (a session limit, the agent stopping).
  virtual void closeAll() = 0;
};

}  // namespace zul
