#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulTransport/AgentPeerSession.h"
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

  const auto second = PersistedDtlsCertificate::loadOrCreate(makeStore(backend));
  EXPECT_EQ(second.fingerprint, first.fingerprint);
  EXPECT_TRUE(
      std::regex_match(first.fingerprint, std::regex("sha-256 ([0-9A-F]{2}:){31}[0-9A-F]{2}")));
  EXPECT_EQ(PersistedDtlsCertificate::fingerprint(first.certificatePem), first.fingerprint);
  EXPECT_EQ(backend->load(SecretStore::service, "dtls-certificate"), stored);  // not rewritten

  // Another store gets another certificate.
  const auto other =
      PersistedDtlsCertificate::loadOrCreate(makeStore(std::make_shared<MemorySecretBackend>()));
  EXPECT_NE(other.fingerprint, first.fingerprint);
}

TEST(PersistedDtlsCertificate, DamagedRecordFailsClearlyWithoutTheKeyAndIsLeftAsItIs) {
  using Case = DtlsCertificateError::Case;
  const auto mine =
      PersistedDtlsCertificate::loadOrCreate(makeStore(std::make_shared<MemorySecretBackend>()));
  const auto other =
      PersistedDtlsCertificate::loadOrCreate(makeStore(std::make_shared<MemorySecretBackend>()));
  auto record = [](const std::string& key, const std::string& certificate) {
    return nlohmann::json{{"privateKey", key}, {"certificate", certificate}}.dump();
  };
  const std::string valid = record(mine.privateKeyPem, mine.certificatePem);
  std::string brokenCertificate = mine.certificatePem;
  brokenCertificate[40] = '*';
  const struct {
    const char* name;
    std::string stored;
    Case expected;
  } cases[] = {
      {"truncated", valid.substr(0, valid.size() / 2), Case::malformedRecord},
      {"not JSON", "not json " + mine.privateKeyPem, Case::malformedRecord},
      {"certificate not a string",
       nlohmann::json{{"privateKey", mine.privateKeyPem}, {"certificate", 7}}.dump(),
       Case::malformedRecord},
      {"key and a broken certificate", record(mine.privateKeyPem, brokenCertificate),
       Case::malformedPem},
      {"broken key", record(mine.privateKeyPem.substr(0, 60), mine.certificatePem),
       Case::malformedPrivateKey},
      {"another certificate's key", record(other.privateKeyPem, mine.certificatePem),
       Case::keyMismatch},
  };
  // A line of the key's base64 body: no error may show any of it.
  const std::string keyLine = mine.privateKeyPem.substr(mine.privateKeyPem.find('\n') + 1, 24);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto backend = std::make_shared<MemorySecretBackend>();
    backend->save(SecretStore::service, "dtls-certificate", toBytes(c.stored));
    try {
      PersistedDtlsCertificate::loadOrCreate(makeStore(backend));
      ADD_FAILURE() << "loaded";
    } catch (const DtlsCertificateError& error) {
      EXPECT_EQ(error.kind(), c.expected) << error.text();
      EXPECT_EQ(error.text().find(keyLine.substr(0, 8)), std::string::npos) << error.text();
      EXPECT_EQ(error.text().find("PRIVATE"), std::string::npos) << error.text();
    }
    EXPECT_THROW(AgentPeerSession{makeStore(backend)}, DtlsCertificateError);  // not an abort
    EXPECT_EQ(backend->load(SecretStore::service, "dtls-certificate"), toBytes(c.stored));
  }
}

TEST(PersistedDtlsCertificate, PemToDer) {
  struct Case {
    std::string pem;
    std::optional<Bytes> der;  // nothing: malformedPem
  };
  const Case cases[] = {
      {"-----BEGIN CERTIFICATE-----\r\nAQID\r\nBA==\r\n-----END CERTIFICATE-----\r\n",
       Bytes{1, 2, 3, 4}},
      {"-----BEGIN A-----\rAQID\u2028BA==\u2029-----END A-----", Bytes{1, 2, 3, 4}},
      {"\n\nAQIDBA==\n\n", Bytes{1, 2, 3, 4}},
      {"-----BEGIN A-----\nAQI=\n-----END A-----\n-----BEGIN B-----\nAw==\n-----END B-----",
       std::nullopt},  // two padded bodies run together do not decode
      {"-----BEGIN A-----\nAQ-D\n-----END A-----", std::nullopt},
      {"-----BEGIN A-----\nAQI\n-----END A-----", std::nullopt},
      {"-----BEGIN A-----\n-----END A-----", std::nullopt},
  };
  for (const auto& c : cases) {
    if (c.der) {
      EXPECT_EQ(PersistedDtlsCertificate::derBytes(c.pem), *c.der) << c.pem;
    } else {
      EXPECT_THROW(PersistedDtlsCertificate::derBytes(c.pem), DtlsCertificateError) << c.pem;
    }
  }
}

}  // namespace
}  // namespace zul
