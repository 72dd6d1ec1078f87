#include <gtest/gtest.h>
#include <openssl/sha.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <regex>
#include <thread>

#include "ZulCore/Media/CaptureSource.h"
#include "ZulCore/Media/VideoEncoder.h"
#include "ZulCore/Support/Console.h"
#include "ZulCore/Trust/Base64Url.h"
#include "ZulCore/Trust/IdentityKeyStore.h"
#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulCore/Trust/PairingService.h"
#include "ZulCore/Trust/TrustedDevice.h"

namespace zul {
namespace {

// Error texts reach logs and the phone: the case name, payloads quoted.
TEST(ErrorText, CaseNameWithPayload) {
  const std::pair<std::string, std::string> cases[] = {
      {CaptureError::displayUnavailable(2).text(), "displayUnavailable(index: 2)"},
      {CaptureError::platformUnsupported("no \"X\"").text(),
       R"(platformUnsupported(reason: "no \"X\""))"},
      {MediaError::encodeFailed(-12902).text(), "encodeFailed(-12902)"},
      {formatErrorCase("pair", {field("a", 1), field("b")}), R"(pair(a: 1, "b"))"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(text, expected);
  EXPECT_NE(MediaError::encodeFailed(-1), MediaError::encodeFailed(-2));
}

// A phone's name printed on the console must not drive the terminal.
TEST(Console, PrintedLinesKeepEveryControlCharacterVisible) {
  const std::pair<std::string, std::string> cases[] = {
      {"name\nsecond line\r", "name\\nsecond line\\r"},
      {"\x1b[2J\x07tab\there", "\\x1b[2J\\x07tab\\there"},
      {std::string("nul\0end", 7), "nul\\x00end"},
      {"back\\slash \x7f", "back\\\\slash \\x7f"},
      {"c1 \xC2\x9B"
       "31m, \xE2\x80\xA8 and \xE2\x80\xA9",
       "c1 \\u009b31m, \\u2028 and \\u2029"},
      {"Код \u2026 ok", "Код \u2026 ok"},
  };
  for (const auto& [text, shown] : cases) EXPECT_EQ(escapeControlCharacters(text), shown);
}

// RFC 4648 section 10, unpadded, plus the two characters that differ from
// standard base64; every byte value round-trips.
TEST(Base64UrlTest, EncodesAndDecodes) {
  const std::pair<Bytes, std::string> vectors[] = {
      {{}, ""},
      {toBytes("f"), "Zg"},
      {toBytes("fo"), "Zm8"},
      {toBytes("foobar"), "Zm9vYmFy"},
      {{0xFB, 0xFF}, "-_8"},
      {{0xFB, 0xEF, 0xBE}, "----"},
  };
  for (const auto& [data, text] : vectors) {
    EXPECT_EQ(Base64Url::encode(data), text);
    EXPECT_EQ(Base64Url::decode(text), data) << text;
  }
  Bytes all;
  for (int i = 0; i < 256; ++i) all.push_back(std::uint8_t(255 - i));
  for (std::size_t length = 250; length <= all.size(); ++length) {
    Bytes data(all.begin(), all.begin() + length);
    EXPECT_EQ(Base64Url::decode(Base64Url::encode(data)), data);
  }
}

TEST(Base64UrlTest, AcceptsPaddingAndStandardDigitsRejectsMalformedText) {
  const std::pair<std::string, Bytes> accepted[] = {
      {"Zg==", toBytes("f")}, {"Zg=", toBytes("f")}, {"+/8", {0xFB, 0xFF}}, {"-/8=", {0xFB, 0xFF}}};
  for (const auto& [text, data] : accepted) EXPECT_EQ(Base64Url::decode(text), data) << text;
  const char* rejected[] = {
      "A",    "Zm9vY", "Zm 8",        "Zm8\n",  // length 1 modulo 4, whitespace
      "Zm8!", "Zm.8",  "Zm8\xC3\xA9",           // outside the alphabet
      "Z===", "=Zm8",  "Zg==Zg==",    "Zm=8",  "Zg===", "Zm9v="};
  for (const char* text : rejected) EXPECT_FALSE(Base64Url::decode(text).has_value()) << text;
  EXPECT_FALSE(Base64Url::decode(std::string_view("Zm\0v", 4)).has_value());
}

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

TEST(Iso8601, WholeSecondsUtcOnly) {
  const UtcSeconds t = std::chrono::sys_days{std::chrono::year{2026} / 11 / 15} +
                       std::chrono::hours{18} + std::chrono::minutes{9} + std::chrono::seconds{39};
  EXPECT_EQ(formatIso8601(t), "2026-11-15T18:09:39Z");
  EXPECT_EQ(parseIso8601("2026-11-15T18:09:39Z"), t);
  EXPECT_TRUE(parseIso8601("2024-02-29T23:59:59Z"));
  for (const char* bad :
       {"2026-11-15T18:09:39.5Z", "2026-11-15T18:09:39", "2026-11-15T18:09:39+00:00",
        "2023-02-29T00:00:00Z", "2026-11-15T24:00:00Z", "2026-11-15T18:09:60Z", ""}) {
    EXPECT_FALSE(parseIso8601(bad)) << bad;
  }
}

TrustedDevice device(std::string id, std::set<DevicePermission> permissions = {
                                         DevicePermission::view, DevicePermission::control}) {
  return {id,
          "Phone " + id,
          "key-" + id,
          std::move(permissions),
          *parseIso8601("2026-11-15T18:09:39Z"),
          false};
}

TEST(TrustedDeviceJson, EncodesCompactlyInFieldOrderAndReadsExtraKeys) {
  EXPECT_EQ(encodeTrustedDevices({}), "[]");
  EXPECT_EQ(
      encodeTrustedDevices({device("d1", {DevicePermission::control, DevicePermission::view})}),
      R"([{"deviceId":"d1","name":"Phone d1","ed25519PublicKey":"key-d1",)"
      R"("permissions":["view","control"],"pairedAt":"2026-11-15T18:09:39Z","revoked":false}])");
  const std::vector<TrustedDevice> list = {
      device("a"), device("b", {}),
      device("c", {allDevicePermissions.begin(), allDevicePermissions.end()})};
  EXPECT_EQ(decodeTrustedDevices(encodeTrustedDevices(list)), list);
  // A later version may add keys; any permission order is read.
  auto decoded = decodeTrustedDevices(
      R"([{"deviceId":"d","name":"n","ed25519PublicKey":"k","permissions":["unattended","view","view"],)"
      R"("pairedAt":"2026-01-02T03:04:05Z","revoked":true,"future":1}])");
  ASSERT_EQ(decoded.size(), 1u);
  EXPECT_EQ(decoded[0].permissions,
            (std::set<DevicePermission>{DevicePermission::view, DevicePermission::unattended}));
  EXPECT_TRUE(decoded[0].revoked);
}

TEST(TrustedDeviceJson, OneBadRecordFailsTheWholeList) {
  const std::string good =
      R"({"deviceId":"d","name":"n","ed25519PublicKey":"k","permissions":["view"],"pairedAt":"2026-01-02T03:04:05Z","revoked":false})";
  auto with = [&](const std::string& from, const std::string& to) {
    std::string record = good;
    record.replace(record.find(from), from.size(), to);
    return "[" + good + "," + record + "]";
  };
  const std::string cases[] = {
      with(R"("deviceId":"d",)", ""),
      with(R"(,"revoked":false)", ""),
      with(R"(["view"])", R"(["view","admin"])"),
      with(R"(["view"])", R"(["View"])"),
      with(R"(["view"])", R"("view")"),
      with("03:04:05Z", "03:04:05"),
      with(R"("revoked":false)", R"("revoked":"false")"),
      R"({"deviceId":"d"})",
      "[" + good,
      "[1]",
  };
  for (const auto& text : cases) {
    EXPECT_THROW(decodeTrustedDevices(text), TrustedDeviceDecodingError) << text;
  }
}

struct StoreFixture : ::testing::Test {
  std::shared_ptr<MemorySecretBackend> backend = std::make_shared<MemorySecretBackend>();
  SecretStore secret{TrustedDeviceStore::account, backend};
  TrustedDeviceStore store{secret};

  std::string stored() { return toString(secret.load().value_or(Bytes{})); }
};

TEST_F(StoreFixture, RevokeKeepsEntriesAndRepairingMovesTheDeviceLast) {
  EXPECT_TRUE(store.load().empty());
  store.revoke("nobody");
  EXPECT_EQ(stored(), "[]");

  store.save({device("a"), device("b"), device("c")});
  store.revoke("b");
  store.revoke("b");
  std::vector<std::pair<std::string, bool>> seen;
  for (const auto& d : store.load()) seen.emplace_back(d.deviceId, d.revoked);
  EXPECT_EQ(seen,
            (std::vector<std::pair<std::string, bool>>{{"a", false}, {"b", true}, {"c", false}}));

  auto again = device("b", {DevicePermission::view});
  store.addOrReplace(again);
  auto list = store.load();
  ASSERT_EQ(list.size(), 3u);
  EXPECT_EQ(list[1].deviceId, "c");
  EXPECT_EQ(list[2], again);
}

// A damaged list is refused and left as it is, so no paired phone is lost.
TEST_F(StoreFixture, CorruptStoreIsNeverRewritten) {
  for (
      const std::string& damaged :
      {std::string("[{\"deviceId\":"),
       std::string(
           R"([{"deviceId":"d","name":"n","ed25519PublicKey":"k","permissions":["root"],"pairedAt":"2026-01-02T03:04:05Z","revoked":false}])")}) {
    secret.save(toBytes(damaged));
    EXPECT_THROW(store.load(), TrustedDeviceDecodingError);
    EXPECT_THROW(store.revoke("d"), TrustedDeviceDecodingError);
    EXPECT_THROW(store.addOrReplace(device("x")), TrustedDeviceDecodingError);
    EXPECT_EQ(stored(), damaged);
  }
}

TEST_F(StoreFixture, ConcurrentRevokesAndPairingsLoseNothing) {
  std::vector<TrustedDevice> initial;
  for (int i = 0; i < 50; ++i) initial.push_back(device("old" + std::to_string(i)));
  store.save(initial);
  {
    std::jthread pairer([&] {
      for (int i = 0; i < 50; ++i) store.addOrReplace(device("new" + std::to_string(i)));
    });
    for (int i = 0; i < 50; ++i) store.revoke("old" + std::to_string(i));
  }
  auto list = store.load();
  ASSERT_EQ(list.size(), 100u);
  for (const auto& d : list) EXPECT_EQ(d.revoked, d.deviceId.starts_with("old")) << d.deviceId;
}

using P = DevicePermission;
using namespace std::chrono_literals;

struct PairingFixture : ::testing::Test {
  std::shared_ptr<const IdentityKeyStore> identity = std::make_shared<IdentityKeyStore>(
      SecretStore("identity", std::make_shared<MemorySecretBackend>()));
  // 1.7 s past a whole second: Unix seconds must truncate.
  std::chrono::system_clock::time_point now =
      std::chrono::system_clock::time_point{1'763'000'000s} + 1700ms;
  PairingService service{identity, [this] { return now; }};

  static std::string urlDecode(std::string_view text) {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i)
      out += text[i] != '%' ? text[i]
                            : char(std::stoi(std::string(text.substr((i += 2) - 1, 2)), 0, 16));
    return out;
  }
};

TEST(PairingPermissions, FilteredDeduplicatedViewFirstUnlessRequested) {
  struct Case {
    std::vector<P> requested;
    std::vector<P> granted;
  };
  const Case cases[] = {
      {{P::shell, P::control, P::control}, {P::view, P::control}},
      {{P::files, P::view}, {P::files, P::view}},
      {{P::unattended}, {P::view}},
      {{P::clipboard, P::shell, P::files, P::control, P::clipboard},
       {P::view, P::clipboard, P::files, P::control}},
  };
  for (const auto& c : cases) EXPECT_EQ(PairingService::grantedPermissions(c.requested), c.granted);
}

TEST_F(PairingFixture, OfferIsSignedOverTheFingerprintTranscript) {
  const std::string fingerprint = "sha-256 AB:CD";
  auto offer = service.begin("wss://rendezvous.example/v1/rendezvous/x?a=1", fingerprint);

  EXPECT_EQ(Base64Url::decode(offer.agentPublicKey), identity->publicKey());
  EXPECT_TRUE(std::regex_match(offer.pairingSecret, std::regex("pair_[A-Za-z0-9_-]{43}")));
  EXPECT_EQ(offer.expiresAt, 1'763'000'001 + 120);

  const std::string transcript = PairingService::fingerprintTranscript(
      offer.agentId, fingerprint, offer.ephemeralX25519PublicKey);
  EXPECT_EQ(transcript, "ZUL-DTLS-FINGERPRINT-1\n" + offer.agentId + "\n" + fingerprint + "\n" +
                            offer.ephemeralX25519PublicKey);
  EXPECT_TRUE(IdentityKeyStore::verify(identity->publicKey(), toBytes(transcript),
                                       *Base64Url::decode(offer.fingerprintSignature)));

  auto again = service.begin("wss://x", fingerprint);
  EXPECT_NE(again.pairingSecret, offer.pairingSecret);
  EXPECT_NE(again.ephemeralX25519PublicKey, offer.ephemeralX25519PublicKey);
}

TEST_F(PairingFixture, GrantIsSignedJsonWithSerialAndYearLongExpiry) {
  auto grant = service.completeVerified("device_abc", "pubkey", {P::shell, P::control, P::control});
  auto json = Base64Url::decode(grant.payload);
  ASSERT_TRUE(json);
  EXPECT_TRUE(
      IdentityKeyStore::verify(identity->publicKey(), *json, *Base64Url::decode(grant.signature)));

  auto document = nlohmann::json::parse(toString(*json));
  EXPECT_TRUE(std::regex_match(document["serial"].get<std::string>(), std::regex("[0-9a-f]{24}")));
  document.erase("serial");
  EXPECT_EQ(document, (nlohmann::json{{"version", 1},
                                      {"agentId", identity->agentId()},
                                      {"deviceId", "device_abc"},
                                      {"devicePublicKey", "pubkey"},
                                      {"permissions", {"view", "control"}},
                                      {"issuedAt", 1'763'000'001},
                                      {"expiresAt", 1'763'000'001 + 31'536'000}}));
  EXPECT_NE(service.completeVerified("d", "k", {}).payload, grant.payload);
}

// The link is one query value: nothing in it may end or split the payload.
TEST_F(PairingFixture, DeepLinkCarriesPercentEncodedJson) {
  auto offer = service.begin("https://host:8443/path?a=b&c=d+e", "sha-256 00:11");
  offer.pairingSecret = "srv+secret=&x #%";
  const std::string link = pairingDeepLink(offer);
  const std::string prefix = "zul://pair?payload=";
  ASSERT_EQ(link.substr(0, prefix.size()), prefix);
  const std::string encoded = link.substr(prefix.size());
  for (char c : std::string("&=+ \"{}#")) EXPECT_EQ(encoded.find(c), std::string::npos) << c;
  auto json = nlohmann::json::parse(urlDecode(encoded));
  EXPECT_EQ(json.size(), 9u);
  EXPECT_EQ(json["platform"], "linux");
  EXPECT_EQ(json["signalUrl"], "https://host:8443/path?a=b&c=d+e");
  EXPECT_EQ(json["pairingSecret"], "srv+secret=&x #%");
  EXPECT_EQ(json["fingerprintSignature"], offer.fingerprintSignature);
}

}  // namespace
}  // namespace zul
