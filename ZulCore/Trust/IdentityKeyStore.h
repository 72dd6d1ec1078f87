#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "ZulCore/Support/Bytes.h"
#include "ZulCore/Support/Error.h"
#include "ZulCore/Trust/SecretStore.h"

namespace zul {

class IdentityError : public Error {
 public:
  enum class Case {
    invalidStoredKey,  // the stored secret is not a 32-byte raw Ed25519 key
    cryptoFailed,      // the crypto library refused an operation
  };

  static IdentityError invalidStoredKey(std::int64_t length);
  static IdentityError cryptoFailed(std::string reason);

  Case kind() const { return kind_; }

 private:
  IdentityError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

// The agent's long-lived Ed25519 signing identity, kept as the 32-byte raw
// private key in one secret ("identity" in the agent). Immutable once built;
// copies share the key and may sign from any thread.
class IdentityKeyStore {
 public:
  static constexpr std::size_t publicKeyLength = 32;
  static constexpr std::size_t signatureLength = 64;

  // Loads the key, or creates and saves a fresh one when the secret is absent.
  // A stored secret that is not a valid key fails with IdentityError and is
  // left as it is; SecretStoreError passes through.
  explicit IdentityKeyStore(const SecretStore& secretStore);

  // "agent_" followed by 24 base64url characters.
  const std::string& agentId() const { return agentId_; }
  // Raw Ed25519 public key, 32 bytes.
  const Bytes& publicKey() const { return publicKey_; }

  // 64-byte Ed25519 signature over exactly `data`. Throws IdentityError.
  Bytes sign(const Bytes& data) const;

  // False for an invalid key or signature; never throws.
  static bool verify(const Bytes& publicKey, const Bytes& payload, const Bytes& signature) noexcept;

  // `prefix` followed by the base64url form of the first 18 bytes of the
  // SHA-256 of the raw public key: the agent's and the devices' identifiers.
  static std::string deriveId(std::string_view prefix, const Bytes& publicKey);

 private:
  struct PrivateKey;
  std::shared_ptr<const PrivateKey> privateKey_;
  Bytes publicKey_;
  std::string agentId_;
};

}  // namespace zul
