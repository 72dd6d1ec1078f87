#pragma once

#include <string>
#include <string_view>

#include "ZulCore/Support/Bytes.h"
#include "ZulCore/Support/Error.h"
#include "ZulCore/Trust/SecretStore.h"

namespace zul {

class DtlsCertificateError : public Error {
 public:
  enum class Case {
    generationFailed,     // the WebRTC library made no certificate
    malformedPem,         // the PEM text has no base64 body that decodes
    malformedRecord,      // the stored record is not the JSON object it must be
    malformedPrivateKey,  // the stored private key does not parse
    keyMismatch,          // the stored private key is not the certificate's
  };

  static DtlsCertificateError generationFailed();
  static DtlsCertificateError malformedPem();
  // `reason` names what is wrong, never the record's text: it holds the key.
  static DtlsCertificateError malformedRecord(std::string_view reason);
  static DtlsCertificateError malformedPrivateKey();
  static DtlsCertificateError keyMismatch();

  Case kind() const { return kind_; }

 private:
  DtlsCertificateError(Case kind, std::string text) : Error(std::move(text)), kind_(kind) {}
  Case kind_;
};

// The agent's DTLS certificate in the PEM forms the WebRTC library reads and
// writes, with its fingerprint text ("sha-256 3A:0F:...").
struct DtlsCertificate {
  std::string privateKeyPem;
  std::string certificatePem;
  std::string fingerprint;
};

// Keeps one certificate in the secret store so that the fingerprint a phone
// pinned at pairing stays valid across restarts.
namespace PersistedDtlsCertificate {

inline constexpr const char* account = "dtls-certificate";

// Reads the stored certificate, or generates an ECDSA one and stores it first.
// A stored record that does not decode, or whose key is not the certificate's,
// is an error that leaves the record as it is and never quotes it; it is never
// a reason to make a new certificate: the agent must not silently change its
// identity on the wire. Throws SecretStoreError or DtlsCertificateError.
DtlsCertificate loadOrCreate(const SecretStore& store);

// "sha-256 " and the 32 SHA-256 bytes of the DER as upper-case hex pairs
// joined by colons. Throws DtlsCertificateError::malformedPem.
std::string fingerprint(std::string_view certificatePem);

// The base64 body of every non-marker line, joined and decoded strictly.
// Throws DtlsCertificateError::malformedPem.
Bytes derBytes(std::string_view pem);

}  // namespace PersistedDtlsCertificate
}  // namespace zul
