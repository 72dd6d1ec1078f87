#include "ZulCore/Trust/IdentityKeyStore.h"

#include <openssl/crypto.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/sha.h>

#include "ZulCore/Trust/Base64Url.h"

namespace zul {
namespace {

struct PkeyDeleter {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct PkeyCtxDeleter {
  void operator()(EVP_PKEY_CTX* ctx) const { EVP_PKEY_CTX_free(ctx); }
};
struct MdCtxDeleter {
  void operator()(EVP_MD_CTX* ctx) const { EVP_MD_CTX_free(ctx); }
};
using PkeyPtr = std::unique_ptr<EVP_PKEY, PkeyDeleter>;
using PkeyCtxPtr = std::unique_ptr<EVP_PKEY_CTX, PkeyCtxDeleter>;
using MdCtxPtr = std::unique_ptr<EVP_MD_CTX, MdCtxDeleter>;

constexpr std::size_t kPrivateKeyLength = 32;
constexpr std::size_t kIdDigestBytes = 18;

// The most recent OpenSSL error of this thread, emptying its queue.
std::string opensslError(std::string_view operation) {
  std::string text(operation);
  unsigned long code = ERR_get_error();
  if (code != 0) {
    char buffer[256];
    ERR_error_string_n(code, buffer, sizeof buffer);
    text += ": ";
    text += buffer;
  }
  ERR_clear_error();
  return text;
}

// Raw key bytes are wiped once the key object holds them.
struct SecretBytes {
  Bytes bytes;
  ~SecretBytes() {
    if (!bytes.empty()) OPENSSL_cleanse(bytes.data(), bytes.size());
  }
};

}  // namespace

struct IdentityKeyStore::PrivateKey {
  PkeyPtr key;
};

IdentityError IdentityError::invalidStoredKey(std::int64_t length) {
  return {Case::invalidStoredKey, formatErrorCase("invalidStoredKey", {field("length", length)})};
}

IdentityError IdentityError::cryptoFailed(std::string reason) {
  return {Case::cryptoFailed, formatErrorCase("cryptoFailed", {field("reason", reason)})};
}

IdentityKeyStore::IdentityKeyStore(const SecretStore& secretStore) {
  PkeyPtr key;
  if (auto stored = secretStore.load()) {
    SecretBytes raw{std::move(*stored)};
    // A damaged secret is reported, never replaced: replacing it would give
    // the agent a new identity and silently break every pairing.
    if (raw.bytes.size() != kPrivateKeyLength) {
      throw IdentityError::invalidStoredKey(static_cast<std::int64_t>(raw.bytes.size()));
    }
    key.reset(EVP_PKEY_new_raw_private_key(EVP_PKEY_ED25519, nullptr, raw.bytes.data(),
                                           raw.bytes.size()));
    if (!key) {
      ERR_clear_error();
      throw IdentityError::invalidStoredKey(static_cast<std::int64_t>(raw.bytes.size()));
    }
  } else {
    PkeyCtxPtr ctx(EVP_PKEY_CTX_new_id(EVP_PKEY_ED25519, nullptr));
    EVP_PKEY* generated = nullptr;
    if (!ctx || EVP_PKEY_keygen_init(ctx.get()) <= 0 ||
        EVP_PKEY_keygen(ctx.get(), &generated) <= 0) {
      throw IdentityError::cryptoFailed(opensslError("key generation"));
    }
    key.reset(generated);
    SecretBytes raw{Bytes(kPrivateKeyLength)};
    std::size_t length = raw.bytes.size();
    if (EVP_PKEY_get_raw_private_key(key.get(), raw.bytes.data(), &length) <= 0 ||
        length != kPrivateKeyLength) {
      throw IdentityError::cryptoFailed(opensslError("private key export"));
    }
    secretStore.save(raw.bytes);
  }

  publicKey_.resize(publicKeyLength);
  std::size_t length = publicKey_.size();
  if (EVP_PKEY_get_raw_public_key(key.get(), publicKey_.data(), &length) <= 0 ||
      length != publicKeyLength) {
    throw IdentityError::cryptoFailed(opensslError("public key export"));
  }
  agentId_ = deriveId("agent_", publicKey_);
  privateKey_ = std::make_shared<const PrivateKey>(PrivateKey{std::move(key)});
}

Bytes IdentityKeyStore::sign(const Bytes& data) const {
  MdCtxPtr ctx(EVP_MD_CTX_new());
  if (!ctx ||
      EVP_DigestSignInit(ctx.get(), nullptr, nullptr, nullptr, privateKey_->key.get()) <= 0) {
    throw IdentityError::cryptoFailed(opensslError("sign init"));
  }
  Bytes signature(signatureLength);
  std::size_t length = signature.size();
  if (EVP_DigestSign(ctx.get(), signature.data(), &length, data.data(), data.size()) <= 0 ||
      length != signatureLength) {
    throw IdentityError::cryptoFailed(opensslError("sign"));
  }
  return signature;
}

bool IdentityKeyStore::verify(const Bytes& publicKey, const Bytes& payload,
                              const Bytes& signature) noexcept {
  if (publicKey.size() != publicKeyLength || signature.size() != signatureLength) return false;
  PkeyPtr key(
      EVP_PKEY_new_raw_public_key(EVP_PKEY_ED25519, nullptr, publicKey.data(), publicKey.size()));
  MdCtxPtr ctx(key ? EVP_MD_CTX_new() : nullptr);
  bool valid = ctx && EVP_DigestVerifyInit(ctx.get(), nullptr, nullptr, nullptr, key.get()) > 0 &&
               EVP_DigestVerify(ctx.get(), signature.data(), signature.size(), payload.data(),
                                payload.size()) == 1;
  ERR_clear_error();
  return valid;
}

std::string IdentityKeyStore::deriveId(std::string_view prefix, const Bytes& publicKey) {
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(publicKey.data(), publicKey.size(), digest);
  // 18 bytes encode to exactly 24 characters, so there is no padding to strip.
  std::string id(prefix);
  id += Base64Url::encode(Bytes(digest, digest + kIdDigestBytes));
  return id;
}

}  // namespace zul
