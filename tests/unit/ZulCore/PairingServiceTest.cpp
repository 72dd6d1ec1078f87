#include <gtest/gtest.h>

#include <nlohmann/json.hpp>
#include <regex>

#include "ZulCore/Trust/Base64Url.h"
#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulCore/Trust/PairingService.h"

namespace zul {
namespace {

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
