#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulCore/Trust/TrustedDevice.h"

namespace zul {
namespace {

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

}  // namespace
}  // namespace zul
