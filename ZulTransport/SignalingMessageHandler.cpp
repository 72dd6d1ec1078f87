#include "ZulTransport/SignalingMessageHandler.h"

#include <algorithm>
#include <cctype>
#include <nlohmann/json.hpp>
#include <utility>

#include "ZulCore/Trust/Base64Url.h"
#include "ZulCore/Trust/IdentityKeyStore.h"
#include "ZulTransport/SignalingError.h"

namespace zul {

namespace {

using Json = nlohmann::json;

const std::string* stringAt(const Json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string()) return nullptr;
  return &it->get_ref<const std::string&>();
}

std::string stringOrEmpty(const Json& object, const char* key) {
  const auto* value = stringAt(object, key);
  return value ? *value : std::string();
}

// Unknown, mistyped and oddly cased names are read leniently: lower-cased,
// and skipped when still unknown.
std::vector<DevicePermission> requestedPermissions(const Json& message) {
  std::vector<DevicePermission> result;
  auto it = message.find("permissions");
  if (it == message.end() || !it->is_array()) return result;
  for (const auto& item : *it) {
    if (!item.is_string()) continue;
    std::string name = item.get<std::string>();
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (auto permission = devicePermissionFromRaw(name)) result.push_back(*permission);
  }
  return result;
}

void sendJson(const SignalingMessageHandler::Send& send, const Json& message) {
  if (!send) throw SignalingError::notConnected();
  send(message.dump());
}

}  // namespace

SignalingMessageHandler::SignalingMessageHandler(std::shared_ptr<const PairingService> pairing,
                                                 std::shared_ptr<SignalingPeer> peer,
                                                 TrustedDeviceStore trustedDevices,
                                                 const SignalingEvents& events, Clock now)
    : pairing_(std::move(pairing)),
      peer_(std::move(peer)),
      trustedDevices_(std::move(trustedDevices)),
      events_(events),
      now_(std::move(now)) {}

void SignalingMessageHandler::reportStatus(const std::string& status) const {
  if (events_.onStatusChanged) events_.onStatusChanged(status);
}

std::optional<std::string> SignalingMessageHandler::activePeerId() const {
  std::lock_guard lock(mutex_);
  return activePeerId_;
}

bool SignalingMessageHandler::peerInitialized() const {
  std::lock_guard lock(mutex_);
  return peerInitialized_;
}

void SignalingMessageHandler::handle(std::string_view message, const Send& send) {
  if (message.size() > maxMessageBytes) throw SignalingError::messageTooLarge();
  Json parsed;
  try {
    parsed = Json::parse(message);
  } catch (const Json::exception& error) {
    throw SignalingTransportError::invalidJson(error.what());
  }
  if (!parsed.is_object()) return;
  const auto* type = stringAt(parsed, "type");
  if (!type) return;

  if (*type == "turn.credentials") {
    std::vector<std::string> urls;
    if (auto it = parsed.find("urls"); it != parsed.end() && it->is_array()) {
      for (const auto& url : *it) {
        if (url.is_string()) urls.push_back(url.get<std::string>());
      }
    }
    peer_->setIceServers(urls, stringOrEmpty(parsed, "username"),
                         stringOrEmpty(parsed, "credential"));
  } else if (*type == "peer.ready") {
    handleReadyPeer(parsed, send);
  } else if (*type == "pairing.request") {
    handlePairingRequest(parsed, send);
  } else if (*type == "signal.answer") {
    const auto* sdp = stringAt(parsed, "sdp");
    if (sdp) peer_->setRemoteAnswer(senderOf(parsed), *sdp);
  } else if (*type == "signal.ice") {
    const auto* candidate = stringAt(parsed, "candidate");
    if (!candidate) return;
    int lineIndex = 0;
    if (auto it = parsed.find("sdpMLineIndex"); it != parsed.end() && it->is_number_integer()) {
      auto value = it->get<std::int64_t>();
      if (value >= 0 && value <= 0xffff) lineIndex = static_cast<int>(value);
    }
    peer_->addRemoteCandidate(senderOf(parsed), *candidate, stringOrEmpty(parsed, "sdpMid"),
                              lineIndex);
  } else if (*type == "peer.left") {
    handlePeerLeft(parsed);
  } else if (*type == "session.limit_reached") {
    handleSessionLimit();
  } else if (*type == "signal.error") {
    const auto* code = stringAt(parsed, "code");
    reportStatus("error:" + (code ? *code : std::string("unknown")));
  }
}

void SignalingMessageHandler::handleReadyPeer(const Json& message, const Send& send) {
  if (auto it = message.find("pairing");
      it != message.end() && it->is_boolean() && it->get<bool>()) {
    return;  // a phone that is only pairing gets no offer
  }
  const auto* given = stringAt(message, "peerId");
  const std::string peerId = given ? *given : std::string();
  if (given) {
    {
      std::lock_guard lock(mutex_);
      activePeerId_ = peerId;
    }
    if (events_.onPeerReady) events_.onPeerReady(peerId);
    reportStatus("peer-ready");
  }
  // The offer may be made later on another thread: it names its phone, so
  // that a server serving several phones can route it (others ignore it).
  auto sendOffer = [this, peerId, send](const std::string& sdp) {
    Json offer{{"type", "signal.offer"}, {"sdp", sdp}};
    if (!peerId.empty()) offer["peerId"] = peerId;
    Send anyThread;
    {
      std::lock_guard lock(mutex_);
      anyThread = sendFromAnyThread_;
    }
    sendJson(anyThread ? anyThread : send, offer);
  };
  peer_->offerTo(peerId, std::move(sendOffer));
  std::lock_guard lock(mutex_);
  peerInitialized_ = true;
}

std::string SignalingMessageHandler::senderOf(const Json& message) const {
  if (const auto* peerId = stringAt(message, "peerId")) return *peerId;
  return activePeerId().value_or("");
}

void SignalingMessageHandler::setSendFromAnyThread(Send send) {
  std::lock_guard lock(mutex_);
  sendFromAnyThread_ = std::move(send);
}

void SignalingMessageHandler::handlePairingRequest(const Json& message, const Send& send) {
  const auto* deviceId = stringAt(message, "deviceId");
  const auto* devicePublicKey = stringAt(message, "devicePublicKey");
  if (!deviceId || !devicePublicKey) throw SignalingError::malformedPairingRequest();
  auto keyBytes = Base64Url::decode(*devicePublicKey);
  if (!keyBytes || IdentityKeyStore::deriveId("device_", *keyBytes) != *deviceId) {
    throw SignalingError::pairingDeviceIdMismatch();
  }
  if (!takeLiveOffer()) {
    // Not fatal to the run: a lax server would otherwise let any phone keep
    // the agent reconnecting by asking to pair over and over.
    if (events_.onDiagnostic) {
      events_.onDiagnostic("refusing pairing request from " + *deviceId + ": " +
                           SignalingError::pairingNotOffered().text());
    }
    return;
  }
  auto requested = requestedPermissions(message);
  auto grant = pairing_->completeVerified(*deviceId, *devicePublicKey, requested);

  auto granted = PairingService::grantedPermissions(requested);
  TrustedDevice device;
  device.deviceId = *deviceId;
  device.name =
      "Device " + (deviceId->size() > 6 ? deviceId->substr(deviceId->size() - 6) : *deviceId);
  device.ed25519PublicKey = *devicePublicKey;
  device.permissions = std::set<DevicePermission>(granted.begin(), granted.end());
  device.pairedAt = std::chrono::floor<std::chrono::seconds>(now_());
  device.revoked = false;

  std::vector<TrustedDevice> saved;
  trustedDevices_.update([&](std::vector<TrustedDevice>& devices) {
    std::erase_if(devices, [&](const TrustedDevice& d) { return d.deviceId == device.deviceId; });
    devices.push_back(device);
    saved = devices;
  });

  if (events_.onTrustedDevicesChanged) events_.onTrustedDevicesChanged(saved);
  syncRevokedDevices(send);
  sendJson(send, Json{{"type", "pairing.grant"},
                      {"grant", grant.payload},
                      {"grantSignature", grant.signature}});
}

void SignalingMessageHandler::addPairingOffer(std::int64_t expiresAt) {
  const auto now = unixSeconds(now_());
  std::lock_guard lock(mutex_);
  std::erase_if(offerExpiries_, [now](std::int64_t expiry) { return expiry < now; });
  offerExpiries_.insert(std::upper_bound(offerExpiries_.begin(), offerExpiries_.end(), expiresAt),
                        expiresAt);
}

// Spends the live offer that ends first, if there is one.
bool SignalingMessageHandler::takeLiveOffer() {
  const auto now = unixSeconds(now_());
  std::lock_guard lock(mutex_);
  std::erase_if(offerExpiries_, [now](std::int64_t expiry) { return expiry < now; });
  if (offerExpiries_.empty()) return false;
  offerExpiries_.erase(offerExpiries_.begin());
  return true;
}

void SignalingMessageHandler::handlePeerLeft(const Json& message) {
  std::optional<std::string> peerId;
  if (const auto* given = stringAt(message, "peerId")) {
    peerId = *given;
  } else {
    peerId = activePeerId();
  }
  if (peerId) {
    if (events_.onPeerLeft) events_.onPeerLeft(*peerId);
    std::lock_guard lock(mutex_);
    if (activePeerId_ == peerId) activePeerId_.reset();
  }
  reportStatus("waiting");
}

void SignalingMessageHandler::handleSessionLimit() {
  std::optional<std::string> previous;
  {
    std::lock_guard lock(mutex_);
    previous = std::exchange(activePeerId_, std::nullopt);
  }
  if (events_.onSessionLimitReached) events_.onSessionLimitReached(previous);
  reportStatus("session-limit-reached");
}

void SignalingMessageHandler::syncRevokedDevices(const Send& send) {
  auto devices = trustedDevices_.load();
  Json ids = Json::array();
  for (const auto& device : devices) {
    if (device.revoked) ids.push_back(device.deviceId);
  }
  sendJson(send, Json{{"type", "devices.revoked"}, {"deviceIds", ids}});
}

}  // namespace zul
