#include "ZulAgent/orchestration/TrustWatch.h"

#include <algorithm>
#include <utility>

namespace zul {

TrustWatch::TrustWatch(TrustedDeviceStore store, PrintLine event, Record record)
    : store_(std::move(store)), event_(std::move(event)), record_(std::move(record)) {
  noteChanges(list());
}

std::vector<TrustedDevice> TrustWatch::list() const {
  try {
    return store_.load();
  } catch (const std::exception&) {
    return {};
  }
}

std::string TrustWatch::deviceName(const std::string& deviceId) const {
  for (const auto& device : list()) {
    if (device.deviceId == deviceId && !device.name.empty()) return device.name;
  }
  return deviceId;
}

void TrustWatch::noteChanges(const std::vector<TrustedDevice>& devices, bool sayRevoked) {
  std::vector<std::string> lines;
  {
    auto known = known_.lock();
    const bool first = !known->has_value();
    if (first) known->emplace();
    for (const auto& device : devices) {
      const std::string key =
          device.deviceId + "@" + std::to_string(device.pairedAt.time_since_epoch().count());
      if ((*known)->insert(key).second && !first && !device.revoked) {
        lines.push_back("paired: " + device.name);
        if (record_) {
          nlohmann::json permissions = nlohmann::json::array();
          for (auto permission : device.permissions) permissions.push_back(rawValue(permission));
          record_("paired", {{"device", device.deviceId},
                             {"name", device.name},
                             {"permissions", std::move(permissions)}});
        }
      }
      if (device.revoked && (*known)->insert(key + "/revoked").second && !first) {
        if (sayRevoked) lines.push_back("revoked: " + device.name);
        if (record_) record_("revoked", {{"device", device.deviceId}, {"name", device.name}});
      }
    }
  }
  for (const auto& line : lines) event_(line);
}

bool TrustWatch::revoked(const std::string& deviceId) {
  std::vector<TrustedDevice> devices;
  try {
    devices = store_.load();
  } catch (const std::exception&) {
    return false;  // a store that cannot be read is not a revoke
  }
  noteChanges(devices, /*sayRevoked=*/false);
  return std::none_of(devices.begin(), devices.end(),
                      [&](const auto& d) { return d.deviceId == deviceId && !d.revoked; });
}

std::optional<std::set<DevicePermission>> TrustWatch::permissionsOf(
    const std::string& deviceId) const {
  for (const auto& device : list()) {
    if (device.deviceId == deviceId && !device.revoked) return device.permissions;
  }
  return std::nullopt;
}

void TrustWatch::idleTick() {
  if (++idleTicks_ % 4 == 0) noteChanges(list());
}

}  // namespace zul
