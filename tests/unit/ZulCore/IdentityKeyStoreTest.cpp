#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <atomic>
#include <memory>
#include <thread>

#include "ZulCore/Trust/Base64Url.h"
#include "ZulCore/Trust/IdentityKeyStore.h"
#include "ZulCore/Trust/MemorySecretBackend.h"

namespace zul {
namespace {

Bytes hex(std::string_view text) {
  Bytes out;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2)
    out.push_back(std::uint8_t(std::stoi(std::string(text.substr(i, 2)), nullptr, 16)));
  return out;
}

struct Rfc8032Vector {
  const char* name;
  const char* secretKey;
  const char* publicKey;
  Bytes message;
  const char* signature;
};

// RFC 8032, section 7.1.
const Rfc8032Vector kVectors[] = {
    {"TEST 1",
     "9d61b19deffd5a60ba844af492ec2cc44449c5697b326919703bac031cae7f60",
     "d75a980182b10ab7d54bfed3c964073a0ee172f3daa62325af021a68f707511a",
     {},
     "e5564300c360ac729086e2cc806e828a84877f1eb8e5d974d873e065224901555fb8821590a33bacc61e39701c"
     "f9b46bd25bf5f0595bbe24655141438e7a100b"},
    {"TEST 3", "c5aa8df43f9f837bedb7442f31dcb7b166d38535076f094b85ce3a2e0b4458f7",
     "fc51cd8e6218a1a38da47ed00230f0580816ed13ba3303ac5deb911548908025", hex("af82"),
     "6291d657deec24024827e69c3abe01a30ce548a284743a445e3680d7db5ac3ac18ff9b538d16f290ae67f76098"
     "4dc6594a7c15e9716ed28dc027beceea1ec40a"},
};

class IdentityKeyStoreTest : public ::testing::Test {
 protected:
  std::shared_ptr<MemorySecretBackend> backend = std::make_shared<MemorySecretBackend>();
  SecretStore store{"identity", backend};
};

TEST_F(IdentityKeyStoreTest, SignsRfc8032VectorsWithTheStoredKey) {
  for (const auto& v : kVectors) {
    SCOPED_TRACE(v.name);
    store.save(hex(v.secretKey));
    IdentityKeyStore identity(store);
    EXPECT_EQ(identity.publicKey(), hex(v.publicKey));
    EXPECT_EQ(identity.sign(v.message), hex(v.signature));
    EXPECT_TRUE(IdentityKeyStore::verify(hex(v.publicKey), v.message, hex(v.signature)));
    EXPECT_EQ(store.load(), hex(v.secretKey));  // loading never rewrites the secret
  }
}

TEST_F(IdentityKeyStoreTest, CreatesStoresAndReloadsAFreshIdentity) {
  IdentityKeyStore first(store);
  auto secret = store.load();
  ASSERT_TRUE(secret.has_value());
  EXPECT_EQ(secret->size(), 32u);
  unsigned char digest[SHA256_DIGEST_LENGTH];
  SHA256(first.publicKey().data(), first.publicKey().size(), digest);
  EXPECT_EQ(first.agentId(), "agent_" + Base64Url::encode(Bytes(digest, digest + 18)));

  IdentityKeyStore second(store);
  EXPECT_EQ(second.publicKey(), first.publicKey());
  EXPECT_EQ(store.load(), secret);
  store.remove();
  EXPECT_NE(IdentityKeyStore(store).agentId(), first.agentId());
}

// A backend whose reads or writes fail, as a locked keyring does.
struct FailingBackend final : SecretBackend {
  bool failLoad = false;
  std::string name() const override { return "failing"; }
  std::optional<Bytes> load(const std::string&, const std::string& account) override {
    if (failLoad) throw SecretStoreError::readFailed(account, "locked");
    return std::nullopt;
  }
  void save(const std::string&, const std::string& account, const Bytes&) override {
    throw SecretStoreError::writeFailed(account, "locked");
  }
  void remove(const std::string&, const std::string&) noexcept override {}
};

// A damaged secret or a failing store is an error, and nothing is replaced.
TEST_F(IdentityKeyStoreTest, DamagedSecretAndStoreFailuresPassToTheCaller) {
  for (std::size_t length : {0u, 31u, 64u}) {
    Bytes damaged(length, 0xA5);
    store.save(damaged);
    EXPECT_THROW(IdentityKeyStore{store}, IdentityError) << length;
    EXPECT_EQ(store.load(), damaged);
  }
  auto failing = std::make_shared<FailingBackend>();
  SecretStore failingStore("identity", failing);
  EXPECT_THROW(IdentityKeyStore{failingStore}, SecretStoreError);  // save fails
  failing->failLoad = true;
  EXPECT_THROW(IdentityKeyStore{failingStore}, SecretStoreError);
}

TEST_F(IdentityKeyStoreTest, VerifyRejectsWithoutThrowing) {
  const auto& v = kVectors[1];
  const Bytes publicKey = hex(v.publicKey);
  const Bytes signature = hex(v.signature);
  ASSERT_TRUE(IdentityKeyStore::verify(publicKey, v.message, signature));

  Bytes flippedSignature = signature;
  flippedSignature[40] ^= 0x01;
  Bytes flippedKey = publicKey;
  flippedKey[0] ^= 0x01;
  Bytes notAPoint(32, 0);
  notAPoint[0] = 2;  // y = 2 is not on the curve
  Bytes longKey = publicKey;
  longKey.push_back(0);
  const struct {
    const char* name;
    Bytes publicKey, payload, signature;
  } cases[] = {
      {"33-byte key", longKey, v.message, signature},
      {"other key", flippedKey, v.message, signature},
      {"invalid point", notAPoint, v.message, signature},
      {"longer payload", publicKey, hex("af8200"), signature},
      {"flipped bit", publicKey, v.message, flippedSignature},
      {"short signature", publicKey, v.message, Bytes(signature.begin(), signature.end() - 1)},
  };
  for (const auto& c : cases)
    EXPECT_FALSE(IdentityKeyStore::verify(c.publicKey, c.payload, c.signature)) << c.name;
}

TEST_F(IdentityKeyStoreTest, SignsFromManyThreads) {
  const IdentityKeyStore identity(store);
  const Bytes expected = identity.sign(toBytes("fingerprint"));  // Ed25519 is deterministic
  std::atomic<int> mismatches{0};
  std::vector<std::jthread> threads(4);
  for (auto& thread : threads) {
    thread = std::jthread([&] {
      for (int i = 0; i < 200; ++i) mismatches += identity.sign(toBytes("fingerprint")) != expected;
    });
  }
  threads.clear();
  EXPECT_EQ(mismatches, 0);
}

}  // namespace
}  // namespace zul
