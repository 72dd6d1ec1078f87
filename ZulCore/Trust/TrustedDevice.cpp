#include "ZulCore/Trust/TrustedDevice.h"

#include <map>
#include <mutex>
#include <nlohmann/json.hpp>

namespace zul {
namespace {

using ordered_json = nlohmann::ordered_json;

const std::string& requireString(const nlohmann::json& object, const char* key) {
  auto it = object.find(key);
  if (it == object.end()) throw TrustedDeviceDecodingError(std::string("missing key ") + key);
  if (!it->is_string()) throw TrustedDeviceDecodingError(std::string("not a string: ") + key);
  return it->get_ref<const std::string&>();
}

TrustedDevice decodeDevice(const nlohmann::json& object) {
  if (!object.is_object()) throw TrustedDeviceDecodingError("device is not an object");
  TrustedDevice device;
  device.deviceId = requireString(object, "deviceId");
  device.name = requireString(object, "name");
  device.ed25519PublicKey = requireString(object, "ed25519PublicKey");

  auto permissions = object.find("permissions");
  if (permissions == object.end()) throw TrustedDeviceDecodingError("missing key permissions");
  if (!permissions->is_array()) throw TrustedDeviceDecodingError("not an array: permissions");
  for (const auto& value : *permissions) {
    if (!value.is_string()) throw TrustedDeviceDecodingError("permission is not a string");
    auto permission = devicePermissionFromRaw(value.get_ref<const std::string&>());
    if (!permission) {
      throw TrustedDeviceDecodingError("unknown permission " + value.get<std::string>());
    }
    device.permissions.insert(*permission);
  }

  const std::string& pairedAt = requireString(object, "pairedAt");
  auto date = parseIso8601(pairedAt);
  if (!date) throw TrustedDeviceDecodingError("bad date " + pairedAt);
  device.pairedAt = *date;

  auto revoked = object.find("revoked");
  if (revoked == object.end()) throw TrustedDeviceDecodingError("missing key revoked");
  if (!revoked->is_boolean()) throw TrustedDeviceDecodingError("not a boolean: revoked");
  device.revoked = revoked->get<bool>();
  return device;
}

// One update lock per account for the whole process: store values are cheap
// copies, and two of them over one account must still take turns.
std::mutex& updateLock(const std::string& account) {
  static std::mutex registryMutex;
  static std::map<std::string, std::mutex> locks;
  std::lock_guard lock(registryMutex);
  return locks[account];
}

}  // namespace

std::string encodeTrustedDevices(const std::vector<TrustedDevice>& devices) {
  ordered_json array = ordered_json::array();
  for (const auto& device : devices) {
    ordered_json permissions = ordered_json::array();
    for (auto permission : device.permissions) permissions.push_back(rawValue(permission));
    ordered_json object;
    object["deviceId"] = device.deviceId;
    object["name"] = device.name;
    object["ed25519PublicKey"] = device.ed25519PublicKey;
    object["permissions"] = std::move(permissions);
    object["pairedAt"] = formatIso8601(device.pairedAt);
    object["revoked"] = device.revoked;
    array.push_back(std::move(object));
  }
  // Names come from phones: never let invalid UTF-8 make the store unwritable.
  return array.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::vector<TrustedDevice> decodeTrustedDevices(std::string_view json) {
  nlohmann::json document;
  try {
    document = nlohmann::json::parse(json);
  } catch (const nlohmann::json::exception& error) {
    throw TrustedDeviceDecodingError(error.what());
  }
  if (!document.is_array()) throw TrustedDeviceDecodingError("document is not an array");
  std::vector<TrustedDevice> devices;
  devices.reserve(document.size());
  for (const auto& object : document) devices.push_back(decodeDevice(object));
  return devices;
}

std::vector<TrustedDevice> TrustedDeviceStore::load() const {
  auto secret = secretStore_.load();
  if (!secret) return {};
  return decodeTrustedDevices(
      std::string_view(reinterpret_cast<const char*>(secret->data()), secret->size()));
}

void TrustedDeviceStore::save(const std::vector<TrustedDevice>& devices) const {
  std::lock_guard lock(updateLock(secretStore_.account()));
  const auto otherProcesses = secretStore_.lockForUpdate();
  secretStore_.save(toBytes(encodeTrustedDevices(devices)));
}

void TrustedDeviceStore::update(
    const std::function<void(std::vector<TrustedDevice>&)>& change) const {
  // The process's lock first, then the store's: threads of one process never
  // wait on the store's lock for each other.
  std::lock_guard lock(updateLock(secretStore_.account()));
  const auto otherProcesses = secretStore_.lockForUpdate();
  auto devices = load();  // a store that does not decode stops here, unwritten
  change(devices);
  secretStore_.save(toBytes(encodeTrustedDevices(devices)));
}

void TrustedDeviceStore::revoke(const std::string& deviceId) const {
  update([&](std::vector<TrustedDevice>& devices) {
    for (auto& device : devices) {
      if (device.deviceId == deviceId) device.revoked = true;
    }
  });
}

bool TrustedDeviceStore::setPermission(const std::string& deviceId, DevicePermission permission,
                                       bool granted) const {
  bool found = false;
  update([&](std::vector<TrustedDevice>& devices) {
    for (auto& device : devices) {
      if (device.deviceId != deviceId) continue;
      found = true;
      if (granted) {
        device.permissions.insert(permission);
      } else {
        device.permissions.erase(permission);
      }
    }
  });
  return found;
}

void TrustedDeviceStore::addOrReplace(const TrustedDevice& device) const {
  update([&](std::vector<TrustedDevice>& devices) {
    std::erase_if(devices, [&](const TrustedDevice& d) { return d.deviceId == device.deviceId; });
    devices.push_back(device);
  });
}

}  // namespace zul
