#include "ZulCore/Trust/PairingService.h"

#include <openssl/evp.h>
#include <openssl/rand.h>

#include <algorithm>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "ZulCore/Trust/Base64Url.h"

namespace zul {
namespace {

Bytes randomBytes(std::size_t count) {
  Bytes bytes(count);
  if (RAND_bytes(bytes.data(), static_cast<int>(count)) != 1) {
    throw PairingError::cryptoFailed("RAND_bytes");
  }
  return bytes;
}

// A fresh X25519 key pair of which only the public half leaves this function.
Bytes freshX25519PublicKey() {
  std::unique_ptr<EVP_PKEY_CTX, decltype(&EVP_PKEY_CTX_free)> context(
      EVP_PKEY_CTX_new_id(EVP_PKEY_X25519, nullptr), EVP_PKEY_CTX_free);
  EVP_PKEY* raw = nullptr;
  if (!context || EVP_PKEY_keygen_init(context.get()) != 1 ||
      EVP_PKEY_keygen(context.get(), &raw) != 1) {
    throw PairingError::cryptoFailed("X25519 key generation");
  }
  std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(raw, EVP_PKEY_free);
  Bytes publicKey(32);
  std::size_t length = publicKey.size();
  if (EVP_PKEY_get_raw_public_key(key.get(), publicKey.data(), &length) != 1 || length != 32) {
    throw PairingError::cryptoFailed("X25519 public key");
  }
  return publicKey;
}

bool requestable(DevicePermission permission) {
  return permission == DevicePermission::view || permission == DevicePermission::control ||
         permission == DevicePermission::clipboard || permission == DevicePermission::files;
}

}  // namespace

std::int64_t unixSeconds(std::chrono::system_clock::time_point time) {
  return std::chrono::duration_cast<std::chrono::seconds>(time.time_since_epoch()).count();
}

PairingService::PairingService(std::shared_ptr<const IdentityKeyStore> identity, Clock now)
    : identity_(std::move(identity)), now_(std::move(now)) {}

std::string PairingService::fingerprintTranscript(const std::string& agentId,
                                                  const std::string& dtlsFingerprint,
                                                  const std::string& x25519PublicKey) {
  return "ZUL-DTLS-FINGERPRINT-1\n" + agentId + "\n" + dtlsFingerprint + "\n" + x25519PublicKey;
}

PairingQrPayload PairingService::begin(const std::string& signalUrl,
                                       const std::string& dtlsFingerprint) const {
  PairingQrPayload payload;
  payload.pairingSecret = "pair_" + Base64Url::encode(randomBytes(32));
  payload.ephemeralX25519PublicKey = Base64Url::encode(freshX25519PublicKey());
  payload.expiresAt = unixSeconds(now_() + std::chrono::seconds(offerLifetimeSeconds));
  payload.agentId = identity_->agentId();
  payload.agentPublicKey = Base64Url::encode(identity_->publicKey());
  payload.dtlsFingerprint = dtlsFingerprint;
  payload.fingerprintSignature = Base64Url::encode(identity_->sign(toBytes(
      fingerprintTranscript(payload.agentId, dtlsFingerprint, payload.ephemeralX25519PublicKey))));
  payload.signalUrl = signalUrl;
  return payload;
}

std::vector<DevicePermission> PairingService::grantedPermissions(
    const std::vector<DevicePermission>& requested) {
  std::vector<DevicePermission> granted;
  for (auto permission : requested) {
    if (requestable(permission) &&
        std::find(granted.begin(), granted.end(), permission) == granted.end()) {
      granted.push_back(permission);
    }
  }
  if (std::find(granted.begin(), granted.end(), DevicePermission::view) == granted.end()) {
    granted.insert(granted.begin(), DevicePermission::view);
  }
  return granted;
}

SignedDeviceGrant PairingService::completeVerified(
    const std::string& deviceId, const std::string& devicePublicKey,
    const std::vector<DevicePermission>& requested) const {
  nlohmann::ordered_json permissions = nlohmann::ordered_json::array();
  for (auto permission : grantedPermissions(requested)) permissions.push_back(rawValue(permission));

  const std::int64_t issuedAt = unixSeconds(now_());
  std::string serial;
  for (auto byte : randomBytes(12)) {
    char hex[3];
    std::snprintf(hex, sizeof hex, "%02x", byte);
    serial += hex;
  }

  nlohmann::ordered_json grant;
  grant["version"] = 1;
  grant["agentId"] = identity_->agentId();
  grant["deviceId"] = deviceId;
  grant["devicePublicKey"] = devicePublicKey;
  grant["permissions"] = std::move(permissions);
  grant["issuedAt"] = issuedAt;
  grant["expiresAt"] = issuedAt + grantLifetimeSeconds;
  grant["serial"] = serial;
  // Strict: a device id or key that is not UTF-8 fails here rather than being altered.
  const Bytes json = toBytes(grant.dump());
  return {Base64Url::encode(json), Base64Url::encode(identity_->sign(json))};
}

std::string percentEncodeQueryValue(std::string_view text) {
  static constexpr std::string_view allowed =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789!$'()*,-./:;?@_~";
  std::string out;
  out.reserve(text.size() * 3);
  for (unsigned char c : text) {
    if (allowed.find(static_cast<char>(c)) != std::string_view::npos) {
      out += static_cast<char>(c);
    } else {
      char escape[4];
      std::snprintf(escape, sizeof escape, "%%%02X", c);
      out += escape;
    }
  }
  return out;
}

std::string pairingDeepLink(const PairingQrPayload& payload) {
  nlohmann::ordered_json json;
  json["agentId"] = payload.agentId;
  json["agentPublicKey"] = payload.agentPublicKey;
  json["ephemeralX25519PublicKey"] = payload.ephemeralX25519PublicKey;
  json["dtlsFingerprint"] = payload.dtlsFingerprint;
  json["fingerprintSignature"] = payload.fingerprintSignature;
  json["pairingSecret"] = payload.pairingSecret;
  json["signalUrl"] = payload.signalUrl;
  json["expiresAt"] = payload.expiresAt;
  json["platform"] = "linux";
  return "zul://pair?payload=" + percentEncodeQueryValue(json.dump());
}

}  // namespace zul
