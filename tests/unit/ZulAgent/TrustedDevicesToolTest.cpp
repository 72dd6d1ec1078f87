#include <gtest/gtest.h>

#include <sstream>

#include "ZulAgent/TrustedDevicesTool.h"
#include "ZulCore/Trust/MemorySecretBackend.h"

namespace zul {
namespace {

TrustedDevice phone(std::string id, bool revoked = false) {
  TrustedDevice device;
  device.deviceId = std::move(id);
  device.name = "Device " + device.deviceId.substr(device.deviceId.size() - 3);
  device.ed25519PublicKey = "key";
  device.permissions = {DevicePermission::view, DevicePermission::control};
  device.pairedAt = UtcSeconds{std::chrono::seconds(1'790'000'000)};
  device.revoked = revoked;
  return device;
}

// Each command on a store of a trusted phone and a revoked one named with
// control characters, which stay on one line.
TEST(TrustedDevicesTool, ListsAndRevokes) {
  struct Case {
    std::vector<std::string> arguments;
    int status;
    std::string out, err, revokedAfter;  // of device_aaa, device_bbb
  };
  const Case cases[] = {
      {{},
       0,
       "device_aaa  trusted  2026-09-21T14:13:20Z  view,control  Device aaa\n"
       "device_bbb  revoked  2026-09-21T14:13:20Z  view,control  Device\\nbbb\\x1b[2J\n",
       "",
       "01"},
      {{"revoke", "device_aaa"}, 0, "revoked device_aaa (Device aaa)\n", "", "11"},
      {{"revoke", "device_bbb"}, 0, "device_bbb was already revoked\n", "", "01"},
      {{"revoke", "device_\x07zzz"}, 1, "", "no trusted phone with the id device_\\x07zzz\n", "01"},
      {{"revoke"}, 2, "", "usage", "01"},
      {{"forget", "device_aaa"}, 2, "", "usage", "01"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.arguments.empty() ? "list" : c.arguments[0] + " " + c.arguments.back());
    const TrustedDeviceStore store(
        SecretStore(TrustedDeviceStore::account, std::make_shared<MemorySecretBackend>()));
    TrustedDevice hostile = phone("device_bbb", true);
    hostile.name = "Device\nbbb\x1b[2J";
    store.save({phone("device_aaa"), hostile});
    std::ostringstream out, err;
    EXPECT_EQ(runTrustedDevicesTool(c.arguments, store, out, err), c.status);
    EXPECT_EQ(out.str(), c.out);
    EXPECT_EQ(err.str().substr(0, c.err.size()), c.err);
    const auto after = store.load();
    EXPECT_EQ(std::to_string(after[0].revoked) + std::to_string(after[1].revoked), c.revokedAfter);
  }
}

// An empty store is listed; a damaged one is reported and left as it was.
TEST(TrustedDevicesTool, ReportsAStoreItCannotRead) {
  auto backend = std::make_shared<MemorySecretBackend>();
  const TrustedDeviceStore store(SecretStore(TrustedDeviceStore::account, backend));
  std::ostringstream out, err;
  EXPECT_EQ(runTrustedDevicesTool({}, store, out, err), 0);
  EXPECT_EQ(out.str(), "no trusted phones\n");
  backend->save(SecretStore::service, TrustedDeviceStore::account, toBytes("not json"));
  EXPECT_EQ(runTrustedDevicesTool({"revoke", "device_aaa"}, store, out, err), 1);
  EXPECT_NE(err.str().find("cannot be read"), std::string::npos);
  EXPECT_EQ(backend->load(SecretStore::service, TrustedDeviceStore::account), toBytes("not json"));
}

}  // namespace
}  // namespace zul
