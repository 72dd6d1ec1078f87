#include "ZulTransport/PersistedDtlsCertificate.h"

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/sha.h>
#include <openssl/x509.h>

#include <array>
#include <memory>
#include <nlohmann/json.hpp>

#include "ZulTransport/WebRtcSupport.h"
#include "rtc_base/rtc_certificate.h"
#include "rtc_base/rtc_certificate_generator.h"
#include "rtc_base/ssl_identity.h"

namespace zul {

DtlsCertificateError DtlsCertificateError::generationFailed() {
  return {Case::generationFailed, formatErrorCase("generationFailed")};
}
DtlsCertificateError DtlsCertificateError::malformedPem() {
  return {Case::malformedPem, formatErrorCase("malformedPem")};
}
DtlsCertificateError DtlsCertificateError::malformedRecord(std::string_view reason) {
  return {Case::malformedRecord,
          formatErrorCase("malformedRecord", {field("reason", std::string(reason))})};
}
DtlsCertificateError DtlsCertificateError::malformedPrivateKey() {
  return {Case::malformedPrivateKey, formatErrorCase("malformedPrivateKey")};
}
DtlsCertificateError DtlsCertificateError::keyMismatch() {
  return {Case::keyMismatch, formatErrorCase("keyMismatch")};
}

namespace PersistedDtlsCertificate {
namespace {

// Length of the line break at `text[i]`, or 0: LF, CR, CR LF, VT, FF, NEL,
// LINE SEPARATOR and PARAGRAPH SEPARATOR all end a line.
std::size_t lineBreakAt(std::string_view text, std::size_t i) {
  const auto c = static_cast<unsigned char>(text[i]);
  if (c == '\r') return i + 1 < text.size() && text[i + 1] == '\n' ? 2 : 1;
  if (c == '\n' || c == 0x0B || c == 0x0C) return 1;
  if (c == 0xC2 && i + 1 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0x85) return 2;
  if (c == 0xE2 && i + 2 < text.size() && static_cast<unsigned char>(text[i + 1]) == 0x80) {
    const auto d = static_cast<unsigned char>(text[i + 2]);
    if (d == 0xA8 || d == 0xA9) return 3;
  }
  return 0;
}

int base64Value(char c) {
  if (c >= 'A' && c <= 'Z') return c - 'A';
  if (c >= 'a' && c <= 'z') return c - 'a' + 26;
  if (c >= '0' && c <= '9') return c - '0' + 52;
  if (c == '+') return 62;
  if (c == '/') return 63;
  return -1;
}

// Standard alphabet, padded to a multiple of four, nothing skipped.
std::optional<Bytes> decodeBase64Strict(std::string_view text) {
  if (text.empty() || text.size() % 4 != 0) return std::nullopt;
  std::size_t padding = 0;
  if (text.back() == '=') padding = text[text.size() - 2] == '=' ? 2 : 1;
  Bytes out;
  out.reserve(text.size() / 4 * 3);
  for (std::size_t i = 0; i < text.size(); i += 4) {
    const bool last = i + 4 == text.size();
    std::uint32_t group = 0;
    for (std::size_t k = 0; k < 4; ++k) {
      const char c = text[i + k];
      int v = 0;
      if (c == '=') {
        if (!last || k < 4 - padding) return std::nullopt;
      } else {
        v = base64Value(c);
        if (v < 0) return std::nullopt;
      }
      group = group << 6 | static_cast<std::uint32_t>(v);
    }
    out.push_back(static_cast<std::uint8_t>(group >> 16));
    if (!last || padding < 2) out.push_back(static_cast<std::uint8_t>(group >> 8));
    if (!last || padding < 1) out.push_back(static_cast<std::uint8_t>(group));
  }
  return out;
}

const std::string& stringMember(const nlohmann::json& record, const char* key) {
  auto it = record.find(key);
  if (it == record.end())
    throw DtlsCertificateError::malformedRecord(std::string("missing ") + key);
  if (!it->is_string()) {
    throw DtlsCertificateError::malformedRecord(std::string("not a string: ") + key);
  }
  return it->get_ref<const std::string&>();
}

struct BioFree {
  void operator()(BIO* bio) const { BIO_free(bio); }
};
struct PkeyFree {
  void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
struct X509Free {
  void operator()(X509* certificate) const { X509_free(certificate); }
};

std::unique_ptr<BIO, BioFree> memoryBio(const std::string& text) {
  return std::unique_ptr<BIO, BioFree>(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
}

// Never asks for a passphrase: an encrypted key simply does not parse.
int noPassphrase(char*, int, int, void*) { return 0; }

// Checks with OpenSSL before the WebRTC library sees the texts: the library
// would take a key that is not the certificate's, and the phone's DTLS
// handshake would then fail with no word why.
void requireMatchingPair(const std::string& privateKeyPem, const std::string& certificatePem) {
  derBytes(certificatePem);  // malformedPem
  auto certificateBio = memoryBio(certificatePem);
  std::unique_ptr<X509, X509Free> certificate(
      certificateBio ? PEM_read_bio_X509(certificateBio.get(), nullptr, noPassphrase, nullptr)
                     : nullptr);
  auto keyBio = memoryBio(privateKeyPem);
  std::unique_ptr<EVP_PKEY, PkeyFree> key(
      keyBio ? PEM_read_bio_PrivateKey(keyBio.get(), nullptr, noPassphrase, nullptr) : nullptr);
  const bool matches = certificate && key && X509_check_private_key(certificate.get(), key.get());
  ERR_clear_error();
  if (!certificate) throw DtlsCertificateError::malformedPem();
  if (!key) throw DtlsCertificateError::malformedPrivateKey();
  if (!matches) throw DtlsCertificateError::keyMismatch();
}

DtlsCertificate fromWebRtc(const rtc::RTCCertificate& certificate) {
  const rtc::RTCCertificatePEM pem = certificate.ToPEM();
  DtlsCertificate out;
  out.privateKeyPem = pem.private_key();
  out.certificatePem = pem.certificate();
  out.fingerprint = fingerprint(out.certificatePem);
  return out;
}

}  // namespace

Bytes derBytes(std::string_view pem) {
  std::string body;
  std::size_t start = 0;
  auto keep = [&](std::string_view line) {
    if (line.empty() || line.starts_with("-----")) return;
    body += line;
  };
  for (std::size_t i = 0; i < pem.size();) {
    if (std::size_t n = lineBreakAt(pem, i)) {
      keep(pem.substr(start, i - start));
      i += n;
      start = i;
    } else {
      ++i;
    }
  }
  keep(pem.substr(start));
  auto der = decodeBase64Strict(body);
  if (!der) throw DtlsCertificateError::malformedPem();
  return *der;
}

std::string fingerprint(std::string_view certificatePem) {
  const Bytes der = derBytes(certificatePem);
  std::array<unsigned char, SHA256_DIGEST_LENGTH> digest{};
  SHA256(der.data(), der.size(), digest.data());
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string text = "sha-256 ";
  for (std::size_t i = 0; i < digest.size(); ++i) {
    if (i > 0) text += ':';
    text += hex[digest[i] >> 4];
    text += hex[digest[i] & 0x0F];
  }
  return text;
}

DtlsCertificate loadOrCreate(const SecretStore& store) {
  webrtc_support::initialize();
  if (std::optional<Bytes> stored = store.load()) {
    // No exceptions from the parser: its messages quote the text, key and all.
    const auto record = nlohmann::json::parse(stored->begin(), stored->end(), nullptr, false);
    if (record.is_discarded()) throw DtlsCertificateError::malformedRecord("not JSON");
    if (!record.is_object()) throw DtlsCertificateError::malformedRecord("not an object");
    const std::string& privateKey = stringMember(record, "privateKey");
    const std::string& certificate = stringMember(record, "certificate");
    requireMatchingPair(privateKey, certificate);
    // The library refuses PEM it cannot read; report it as ours.
    auto parsed = rtc::RTCCertificate::FromPEM(rtc::RTCCertificatePEM(privateKey, certificate));
    if (!parsed) throw DtlsCertificateError::malformedPem();
    return fromWebRtc(*parsed);
  }
  auto generated =
      rtc::RTCCertificateGenerator::GenerateCertificate(rtc::KeyParams::ECDSA(), absl::nullopt);
  if (!generated) throw DtlsCertificateError::generationFailed();
  DtlsCertificate certificate = fromWebRtc(*generated);
  const nlohmann::json record = {{"privateKey", certificate.privateKeyPem},
                                 {"certificate", certificate.certificatePem}};
  store.save(toBytes(record.dump()));
  return certificate;
}

}  // namespace PersistedDtlsCertificate
}  // namespace zul
