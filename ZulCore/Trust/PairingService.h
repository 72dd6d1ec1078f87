#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "ZulCore/Support/Bytes.h"
#include "ZulCore/Support/Error.h"
#include "ZulCore/Trust/DevicePermission.h"
#include "ZulCore/Trust/IdentityKeyStore.h"

namespace zul {

// What the pairing QR code carries.
struct PairingQrPayload {
  std::string agentId;
  std::string agentPublicKey;            // Base64Url, 32 bytes
  std::string ephemeralX25519PublicKey;  // Base64Url, 32 bytes; published for the phone's use
  std::string dtlsFingerprint;
  std::string fingerprintSignature;  // Base64Url Ed25519 over the fingerprint transcript
  std::string pairingSecret;         // local at first, then the rendezvous server's
  std::string signalUrl;
  std::int64_t expiresAt = 0;  // Unix seconds; local at first, then the server's

  friend bool operator==(const PairingQrPayload&, const PairingQrPayload&) = default;
};

// A device grant: the exact JSON bytes and the agent's signature over them.
struct SignedDeviceGrant {
  std::string payload;    // Base64Url of the grant JSON
  std::string signature;  // Base64Url of the Ed25519 signature over those bytes
};

class PairingError : public Error {
 public:
  static PairingError cryptoFailed(std::string reason) {
    return PairingError(formatErrorCase("cryptoFailed", {field("reason", reason)}));
  }

 private:
  using Error::Error;
};

// Builds pairing offers and signs device grants. Holds no pairing state:
// the rendezvous server keeps the offer and its secret.
class PairingService {
 public:
  using Clock = std::function<std::chrono::system_clock::time_point()>;

  static constexpr std::int64_t offerLifetimeSeconds = 120;
  static constexpr std::int64_t grantLifetimeSeconds = 31'536'000;  // 365 days

  explicit PairingService(std::shared_ptr<const IdentityKeyStore> identity,
                          Clock now = std::chrono::system_clock::now);

  // A fresh offer: local one-time secret, fresh X25519 public half, signed
  // fingerprint, 120 seconds to live.
  PairingQrPayload begin(const std::string& signalUrl, const std::string& dtlsFingerprint) const;

  // Grants an already verified request. `view` is always granted; `shell` and
  // `unattended` never are; duplicates are dropped; request order is kept.
  SignedDeviceGrant completeVerified(const std::string& deviceId,
                                     const std::string& devicePublicKey,
                                     const std::vector<DevicePermission>& requested) const;

  // The permissions a request ends up with, in grant order.
  static std::vector<DevicePermission> grantedPermissions(
      const std::vector<DevicePermission>& requested);

  // "ZUL-DTLS-FINGERPRINT-1\n" agentId \n fingerprint \n x25519Key, no final line feed.
  static std::string fingerprintTranscript(const std::string& agentId,
                                           const std::string& dtlsFingerprint,
                                           const std::string& x25519PublicKey);

 private:
  std::shared_ptr<const IdentityKeyStore> identity_;
  Clock now_;
};

// "zul://pair?payload=" + the payload's compact JSON (with "platform":
// "linux"), percent-encoded for a URL query with "&", "=" and "+" escaped too.
std::string pairingDeepLink(const PairingQrPayload& payload);

// Percent-encodes everything but the characters a URL query allows, less
// "&", "=" and "+".
std::string percentEncodeQueryValue(std::string_view text);

// Unix seconds of a time point, truncated toward zero.
std::int64_t unixSeconds(std::chrono::system_clock::time_point time);

}  // namespace zul
