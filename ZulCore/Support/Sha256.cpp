#include "ZulCore/Support/Sha256.h"

#include <openssl/evp.h>

#include <stdexcept>

namespace zul {

struct Sha256::Context {
  EVP_MD_CTX* md = EVP_MD_CTX_new();
  ~Context() { EVP_MD_CTX_free(md); }
};

Sha256::Sha256() : context_(std::make_unique<Context>()) {
  if (!context_->md || EVP_DigestInit_ex(context_->md, EVP_sha256(), nullptr) != 1) {
    throw std::runtime_error("SHA-256 is not available");
  }
}

Sha256::~Sha256() = default;

void Sha256::update(const std::uint8_t* data, std::size_t size) {
  EVP_DigestUpdate(context_->md, data, size);
}

std::string Sha256::hexDigest() {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_DigestFinal_ex(context_->md, digest, &length);
  EVP_DigestInit_ex(context_->md, EVP_sha256(), nullptr);
  static constexpr char hex[] = "0123456789abcdef";
  std::string out;
  for (unsigned int i = 0; i < length; ++i) {
    out += hex[digest[i] >> 4];
    out += hex[digest[i] & 15];
  }
  return out;
}

}  // namespace zul
