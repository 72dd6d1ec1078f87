#include <gtest/gtest.h>

#include <memory>

#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulTransport/AgentSignalingClient.h"
#include "support/FakeSignalingPeer.h"

namespace zul {
namespace {

struct ClientParts {
  std::shared_ptr<MemorySecretBackend> secrets = std::make_shared<MemorySecretBackend>();
  std::shared_ptr<IdentityKeyStore> identity =
      std::make_shared<IdentityKeyStore>(SecretStore("identity", secrets));
  std::shared_ptr<PairingService> pairing = std::make_shared<PairingService>(identity);
  std::shared_ptr<test::FakeSignalingPeer> peer = std::make_shared<test::FakeSignalingPeer>();
  TrustedDeviceStore store{SecretStore("trusted-devices", secrets)};

  std::unique_ptr<AgentSignalingClient> client(const std::string& base) {
    return std::make_unique<AgentSignalingClient>(base, identity, pairing, peer, store);
  }
};

TEST(AgentSignalingClientTest, UnusableAddressesFailBeforeAnyNetworkUse) {
  ClientParts parts;
  for (const char* base : {"ftp://rv.example.com", "not a url"}) {
    SCOPED_TRACE(base);
    auto client = parts.client(base);
    for (int attempt = 0; attempt < 2; ++attempt) {
      try {
        attempt == 0 ? client->run() : static_cast<void>(client->createPairing());
        ADD_FAILURE() << "accepted";
      } catch (const SignalingError& error) {
        EXPECT_EQ(error.kind(), SignalingError::Case::invalidSignalingURL);
      }
    }
  }
}

TEST(AgentSignalingClientTest, RunAfterCloseReturnsAtOnceWithoutStatus) {
  ClientParts parts;
  auto client = parts.client("ws://127.0.0.1:9");
  std::vector<std::string> statuses;
  client->onStatusChanged = [&](const std::string& s) { statuses.push_back(s); };
  client->close();
  client->run();
  EXPECT_TRUE(statuses.empty());
}

TEST(AgentSignalingClientTest, DeviceListAndRevocation) {
  ClientParts parts;
  auto client = parts.client("https://rv.example.com");
  EXPECT_EQ(client->rendezvousUrl(),
            "wss://rv.example.com/v1/rendezvous/" + parts.identity->agentId());
  parts.store.save({{"device_a", "A", "k", {DevicePermission::view}, UtcSeconds{}, false}});
  std::vector<std::vector<TrustedDevice>> reported;
  client->onTrustedDevicesChanged = [&](const std::vector<TrustedDevice>& d) {
    reported.push_back(d);
  };
  client->revokeDevice("device_a");
  ASSERT_EQ(reported.size(), 1u);
  EXPECT_TRUE(reported[0].at(0).revoked);
  EXPECT_EQ(client->trustedDeviceList(), reported[0]);

  // An unreadable store reads as empty.
  parts.secrets->save(SecretStore::service, TrustedDeviceStore::account, toBytes("{broken"));
  EXPECT_TRUE(client->trustedDeviceList().empty());
}

}  // namespace
}  // namespace zul
