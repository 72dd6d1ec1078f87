#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulTransport/PersistedDtlsCertificate.h"

namespace zul {
namespace {

SecretStore makeStore(std::shared_ptr<MemorySecretBackend> backend) {
  return SecretStore(PersistedDtlsCertificate::account, std::move(backend));
}

TEST(PersistedDtlsCertificate, CreatesOnceThenReadsTheSameCertificate) {
  auto backend = std::make_shared<MemorySecretBackend>();
  const auto first = PersistedDtlsCertificate::loadOrCreate(makeStore(backend));
  const auto stored = backend->load(SecretStore::service, "dtls-certificate");
  ASSERT_TRUE(stored);
  const auto record = nlohmann::json::parse(toString(*stored));
  EXPECT_EQ(record.size(), 2u);
  EXPECT_EQ(record["certificate"], first.certificatePem);
  EXPECT_EQ(record["privateKey"], first.privateKeyPem);

  const auto second = PersistedDtlsCertificate::loadOrCreate(makeStore(backend));
  EXPECT_EQ(second.fingerprint, first.fingerprint);
  EXPECT_EQ(second.certificatePem, first.certificatePem);
  EXPECT_EQ(backend->load(SecretStore::service, "dtls-certificate"), stored);  // not rewritten

  // Another store gets another certificate.
  const auto other =
      PersistedDtlsCertificate::loadOrCreate(makeStore(std::make_shared<MemorySecretBackend>()));
  EXPECT_NE(other.fingerprint, first.fingerprint);
}

TEST(PersistedDtlsCertificate, FingerprintIsUpperCaseHexPairsOfTheDerDigest) {
  const auto certificate =
      PersistedDtlsCertificate::loadOrCreate(makeStore(std::make_shared<MemorySecretBackend>()));
  EXPECT_EQ(certificate.fingerprint.size(), 103u);
  EXPECT_TRUE(std::regex_match(certificate.fingerprint,
                               std::regex("sha-256 ([0-9A-F]{2}:){31}[0-9A-F]{2}")))
      << certificate.fingerprint;
  EXPECT_EQ(PersistedDtlsCertificate::fingerprint(certificate.certificatePem),
            certificate.fingerprint);
}

TEST(PersistedDtlsCertificate, DamagedRecordFailsAndIsLeftAsItIs) {
  const std::string valid = nlohmann::json{{"privateKey", "x"}}.dump();  // lacks "certificate"
  const std::string badPem =
      nlohmann::json{
          {"privateKey", "-----BEGIN X-----\nAAAA\n-----END X-----"},
          {"certificate", "-----BEGIN CERTIFICATE-----\n*bad*\n-----END CERTIFICATE-----"}}
          .dump();
  for (const std::string& damaged : {std::string("not json"), valid, badPem}) {
    auto backend = std::make_shared<MemorySecretBackend>();
    backend->save(SecretStore::service, "dtls-certificate", toBytes(damaged));
    EXPECT_ANY_THROW(PersistedDtlsCertificate::loadOrCreate(makeStore(backend))) << damaged;
    EXPECT_EQ(backend->load(SecretStore::service, "dtls-certificate"), toBytes(damaged));
  }
}

TEST(PersistedDtlsCertificate, PemToDer) {
  struct Case {
    std::string pem;
    std::optional<Bytes> der;  // nothing: malformedPem
  };
  const Case cases[] = {
      {"-----BEGIN CERTIFICATE-----\nAQID\nBA==\n-----END CERTIFICATE-----\n", Bytes{1, 2, 3, 4}},
      {"-----BEGIN CERTIFICATE-----\r\nAQID\r\nBA==\r\n-----END CERTIFICATE-----\r\n",
       Bytes{1, 2, 3, 4}},
      {"-----BEGIN A-----\rAQID\u2028BA==\u2029-----END A-----", Bytes{1, 2, 3, 4}},
      {"\n\nAQIDBA==\n\n", Bytes{1, 2, 3, 4}},
      {"-----BEGIN A-----\nAQI=\n-----END A-----\n-----BEGIN B-----\nAw==\n-----END B-----",
       std::nullopt},  // two padded bodies run together do not decode
      {"-----BEGIN A-----\nAQ-D\n-----END A-----", std::nullopt},
      {"-----BEGIN A-----\nAQ D\n-----END A-----", std::nullopt},
      {"-----BEGIN A-----\nAQI\n-----END A-----", std::nullopt},
      {"-----BEGIN A-----\n-----END A-----", std::nullopt},
  };
  for (const auto& c : cases) {
    if (c.der) {
      EXPECT_EQ(PersistedDtlsCertificate::derBytes(c.pem), *c.der) << c.pem;
    } else {
      try {
        PersistedDtlsCertificate::derBytes(c.pem);
        ADD_FAILURE() << "decoded: " << c.pem;
      } catch (const DtlsCertificateError& error) {
        EXPECT_EQ(error.kind(), DtlsCertificateError::Case::malformedPem);
        EXPECT_EQ(error.text(), "malformedPem");
      }
    }
  }
}

}  // namespace
}  // namespace zul
