#pragma once

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "ZulCore/Support/Bytes.h"
#include "ZulCore/Support/Error.h"
#include "ZulCore/Trust/DevicePermission.h"
#include "ZulCore/Trust/Iso8601.h"
#include "ZulCore/Trust/SecretStore.h"

namespace zul {

// A paired phone. A revoked entry stays in the list.
struct TrustedDevice {
  std::string deviceId;  // derived from the phone's key; unique in the store
  std::string name;
  std::string ed25519PublicKey;  // Base64Url of the raw 32-byte key
  std::set<DevicePermission> permissions;
  UtcSeconds pairedAt;
  bool revoked = false;

  friend bool operator==(const TrustedDevice&, const TrustedDevice&) = default;
};

// The stored list does not decode: a missing or mistyped key, an unknown
// permission, a malformed date. The stored bytes are left as they are.
class TrustedDeviceDecodingError : public Error {
 public:
  explicit TrustedDeviceDecodingError(std::string reason)
      : Error(formatErrorCase("dataCorrupted", {field("reason", reason)})) {}
};

// Compact JSON array of devices, keys in declaration order.
std::string encodeTrustedDevices(const std::vector<TrustedDevice>& devices);
// Throws TrustedDeviceDecodingError.
std::vector<TrustedDevice> decodeTrustedDevices(std::string_view json);

// The persistent list of paired phones, one JSON document in the secret
// store. No cache: every operation reads and writes the secret. Updates of one
// account take turns, within the process and with every other process on the
// same store (the agent pairing while the trusted-devices tool revokes), so
// no change is lost.
class TrustedDeviceStore {
 public:
  static constexpr const char* account = "trusted-devices";

  explicit TrustedDeviceStore(SecretStore secretStore) : secretStore_(std::move(secretStore)) {}

  // Empty when nothing was stored yet. Throws SecretStoreError or
  // TrustedDeviceDecodingError; never rewrites a store it cannot read.
  std::vector<TrustedDevice> load() const;
  // Replaces the whole stored list.
  void save(const std::vector<TrustedDevice>& devices) const;
  // Marks every entry with this id revoked, keeping order; writes even when
  // nothing matched.
  void revoke(const std::string& deviceId) const;
  // Grants or withdraws one permission of a device, at the computer (the way
  // `shell` and `unattended` are given); false when no record has the id.
  bool setPermission(const std::string& deviceId, DevicePermission permission, bool granted) const;
  // Drops any entry with the device's id and appends it (re-pairing a revoked
  // phone makes it trusted again and moves it last).
  void addOrReplace(const TrustedDevice& device) const;
  // Read-modify-write under the store's update lock.
  void update(const std::function<void(std::vector<TrustedDevice>&)>& change) const;

 private:
  SecretStore secretStore_;
};

}  // namespace zul
