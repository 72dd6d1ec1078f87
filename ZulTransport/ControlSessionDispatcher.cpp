#include "ZulTransport/ControlSessionDispatcher.h"

#include <algorithm>
#include <utility>

#include "ZulCore/Support/Error.h"
#include "ZulCore/Trust/Base64Url.h"
#include "ZulCore/Trust/IdentityKeyStore.h"

#ifndef ZUL_AGENT_VERSION
#define ZUL_AGENT_VERSION ""
#endif

namespace zul {

ControlSessionError ControlSessionError::missingField(std::string_view key) {
  return {Case::missingField, formatErrorCase("missingField", {field(key)})};
}
ControlSessionError ControlSessionError::identityMismatch() {
  return {Case::identityMismatch, "identityMismatch"};
}
ControlSessionError ControlSessionError::deviceNotTrusted() {
  return {Case::deviceNotTrusted, "deviceNotTrusted"};
}
ControlSessionError ControlSessionError::fingerprintMismatch() {
  return {Case::fingerprintMismatch, "fingerprintMismatch"};
}
ControlSessionError ControlSessionError::invalidSignature() {
  return {Case::invalidSignature, "invalidSignature"};
}
ControlSessionError ControlSessionError::anotherSessionActive() {
  return {Case::anotherSessionActive, "anotherSessionActive"};
}
ControlSessionError ControlSessionError::noActiveSession() {
  return {Case::noActiveSession, "noActiveSession"};
}
ControlSessionError ControlSessionError::computerLocked() {
  return {Case::computerLocked, "computerLocked"};
}
ControlSessionError ControlSessionError::agentPaused() {
  return {Case::agentPaused, "agentPaused"};
}
ControlSessionError ControlSessionError::connectionDenied() {
  return {Case::connectionDenied, "connectionDenied"};
}

namespace {

const std::string* stringAt(const nlohmann::json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return nullptr;
  return &it->get_ref<const std::string&>();
}

}  // namespace

bool ControlSessionShared::useNonce(const std::string& deviceId, const std::string& nonce) {
  std::lock_guard lock(mutex_);
  return usedNonces_.insert(deviceId + '\n' + nonce).second;
}

ControlSessionDispatcher::ControlSessionDispatcher(std::shared_ptr<ControlChannel> peer,
                                                   TrustedDeviceStore trustedDevices,
                                                   std::shared_ptr<ControlSessionShared> shared)
    : peer_(std::move(peer)),
      trustedDevices_(std::move(trustedDevices)),
      shared_(shared ? std::move(shared) : std::make_shared<ControlSessionShared>()) {}

std::string ControlSessionDispatcher::helloTranscript(std::string_view sessionId,
                                                      std::string_view deviceId,
                                                      std::string_view nonce) {
  std::string transcript = "ZUL-CONTROL-HELLO-1\n";
  transcript.append(sessionId).append("\n").append(deviceId).append("\n").append(nonce);
  return transcript;
}

void ControlSessionDispatcher::diagnose(const std::string& line) const {
  if (onDiagnostic) onDiagnostic(line);
}

void ControlSessionDispatcher::handle(std::string_view channel, std::string_view data) {
  RoutedMessage message;
  try {
    message = MessageRouter::parse(channel, data);
  } catch (const std::exception& error) {
    diagnose("dropping malformed " + std::string(channel) + " message: " + error.what());
    return;
  }

  try {
    if (message.type == "control.hello") {
      authenticate(message);
      return;
    }
    std::optional<PermissionGate> permissions;
    {
      std::lock_guard lock(mutex_);
      if (sessionId_ && *sessionId_ == message.sessionId) permissions = permissions_;
    }
    if (!permissions) throw ControlSessionError::noActiveSession();
    if (onAuthenticatedMessage) onAuthenticatedMessage(message, *permissions);
  } catch (const std::exception& error) {
    diagnose("rejecting " + message.type + ": " + error.what());
    sendError(message.sessionId, error);
  }
}

void ControlSessionDispatcher::authenticate(const RoutedMessage& hello) {
  const nlohmann::json& json = hello.json;
  const std::string* deviceId = stringAt(json, "deviceId");
  if (!deviceId) throw ControlSessionError::missingField("deviceId");
  {
    std::lock_guard lock(mutex_);
    if (expectedPeerDeviceId_ != *deviceId) throw ControlSessionError::identityMismatch();
  }

  // Read afresh for every hello, so a revoke bites at once.
  const auto devices = trustedDevices_.load();
  auto record = std::find_if(devices.begin(), devices.end(), [&](const TrustedDevice& d) {
    return d.deviceId == *deviceId && !d.revoked;
  });
  if (record == devices.end()) throw ControlSessionError::deviceNotTrusted();

  if (const std::string* fingerprint = stringAt(json, "dtlsFingerprint")) {
    if (*fingerprint != peer_->dtlsFingerprint()) throw ControlSessionError::fingerprintMismatch();
  }

  const std::string* nonce = stringAt(json, "nonce");
  const std::string* signatureText = stringAt(json, "signature");
  if (!nonce || !signatureText) throw ControlSessionError::missingField("nonce/signature");
  auto signature = Base64Url::decode(*signatureText);
  auto publicKey = Base64Url::decode(record->ed25519PublicKey);
  if (!signature || !publicKey) throw ControlSessionError::missingField("nonce/signature");
  if (!IdentityKeyStore::verify(
          *publicKey, toBytes(helloTranscript(hello.sessionId, *deviceId, *nonce)), *signature)) {
    throw ControlSessionError::invalidSignature();
  }
  // Remembered only once the signature holds, so strangers cannot use up a
  // phone's nonces; the phone's own replay is refused like a bad signature.
  if (!shared_->useNonce(*deviceId, *nonce)) {
    diagnose("hello from " + *deviceId + " repeats a nonce already used");
    throw ControlSessionError::invalidSignature();
  }

  if (shared_->paused && shared_->paused()) throw ControlSessionError::agentPaused();
  // Nobody at a locked computer to see the phone take it: only a device
  // allowed to connect unattended does.
  if (shared_->screenLocked && shared_->screenLocked() &&
      !record->permissions.count(DevicePermission::unattended)) {
    throw ControlSessionError::computerLocked();
  }
  // A phone repeating its hello on the session it holds is not asked again.
  if (shared_->admit && !record->permissions.count(DevicePermission::unattended)) {
    bool repeated;
    {
      std::lock_guard lock(mutex_);
      repeated = sessionId_ == hello.sessionId && deviceId_ == *deviceId;
    }
    if (!repeated && !shared_->admit(*deviceId)) throw ControlSessionError::connectionDenied();
  }

  auto replaceSession = json.find("replaceSession");
  const bool replace =
      replaceSession != json.end() && replaceSession->is_boolean() && replaceSession->get<bool>();
  const ControlLeaseResult lease = shared_->lease.acquire(hello.sessionId, *deviceId, replace);
  if (!lease.granted) throw ControlSessionError::anotherSessionActive();
  if (lease.replacedSessionId && onSessionReleased) onSessionReleased();

  bool alreadyEstablished;
  {
    std::lock_guard lock(mutex_);
    // The phone repeating its hello on the session it already holds: answer
    // again, but it is the same session, not a new one.
    alreadyEstablished =
        !lease.replacedSessionId && sessionId_ == hello.sessionId && deviceId_ == *deviceId;
    sessionId_ = hello.sessionId;
    deviceId_ = *deviceId;
    permissions_ = PermissionGate{record->permissions};
  }
  if (!alreadyEstablished && onSessionEstablished) onSessionEstablished(hello.sessionId, *deviceId);

  nlohmann::json permissions = nlohmann::json::array();
  for (auto permission : record->permissions) permissions.push_back(rawValue(permission));
  nlohmann::json reply = MessageRouter::makeEnvelope("control.hello.ok", hello.sessionId);
  reply["permissions"] = std::move(permissions);
  reply["controlLease"] = lease.replacedSessionId ? "replaced" : "granted";
  // A phone allowed to open a shell learns which there are.
  const bool shells = record->permissions.count(DevicePermission::shell) > 0 &&
                      record->permissions.count(DevicePermission::control) > 0;
  reply["host"] = {{"platform", "linux"},
                   {"agentVersion", ZUL_AGENT_VERSION},
                   {"shells", shells ? nlohmann::json(shared_->shells) : nlohmann::json::array()},
                   {"shellKeyCombos", shells},
                   // A phone allowed the clipboard can copy from it.
                   {"clipboardCopy", record->permissions.count(DevicePermission::clipboard) > 0}};
  send(reply);
}

void ControlSessionDispatcher::sendError(const std::string& sessionId,
                                         const std::exception& error) {
  auto* controlError = dynamic_cast<const ControlSessionError*>(&error);
  const bool denied =
      (controlError && controlError->kind() != ControlSessionError::Case::missingField) ||
      dynamic_cast<const PermissionGateError*>(&error);
  nlohmann::json reply = MessageRouter::makeEnvelope("control.error", sessionId);
  reply["code"] = denied ? "PERMISSION_DENIED" : "INVALID_MESSAGE";
  reply["message"] = error.what();
  // For the app to act on without reading the message: the case, and the
  // permission a refused request lacked.
  reply["reason"] = errorReason(error);
  if (auto* gate = dynamic_cast<const PermissionGateError*>(&error)) {
    reply["permission"] = rawValue(gate->permission());
  }
  send(reply);
}

void ControlSessionDispatcher::refuse(const std::string& sessionId, const std::exception& error) {
  sendError(sessionId, error);
}

void ControlSessionDispatcher::send(const nlohmann::json& message) {
  try {
    peer_->sendControlText(message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace));
  } catch (...) {
    // A reply that cannot be sent is lost; the phone times out or retries.
  }
}

void ControlSessionDispatcher::setExpectedPeerDeviceId(std::optional<std::string> deviceId) {
  std::lock_guard lock(mutex_);
  expectedPeerDeviceId_ = std::move(deviceId);
}

std::optional<std::string> ControlSessionDispatcher::activeSessionId() const {
  std::lock_guard lock(mutex_);
  return sessionId_;
}

void ControlSessionDispatcher::updatePermissions(const PermissionGate& permissions) {
  std::lock_guard lock(mutex_);
  if (sessionId_) permissions_ = permissions;
}

std::optional<PermissionGate> ControlSessionDispatcher::activePermissions() const {
  std::lock_guard lock(mutex_);
  return permissions_;
}

void ControlSessionDispatcher::releaseActiveSession() {
  std::optional<std::string> sessionId;
  {
    std::lock_guard lock(mutex_);
    sessionId = std::exchange(sessionId_, std::nullopt);
    deviceId_.reset();
    permissions_.reset();
  }
  if (!sessionId) return;
  if (onSessionReleased) onSessionReleased();
  shared_->lease.release(*sessionId);
  diagnose("released control session " + *sessionId);
}

}  // namespace zul
