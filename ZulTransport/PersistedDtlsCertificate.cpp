#include "ZulTransport/PersistedDtlsCertificate.h"

#include <openssl/sha.h>

#include <array>
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
    const auto record = nlohmann::json::parse(stored->begin(), stored->end());
    const std::string privateKey = record.at("privateKey").get<std::string>();
    const std::string certificate = record.at("certificate").get<std::string>();
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
