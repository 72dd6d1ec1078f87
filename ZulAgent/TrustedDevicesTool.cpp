#include "ZulAgent/TrustedDevicesTool.h"

#include <algorithm>

#include "ZulCore/Trust/Iso8601.h"

namespace zul {
namespace {

constexpr const char* usage =
    "usage: zul-trusted-devices [list]\n"
    "       zul-trusted-devices revoke DEVICE_ID\n";

void list(const std::vector<TrustedDevice>& devices, std::ostream& out) {
  if (devices.empty()) {
    out << "no trusted phones\n";
    return;
  }
  for (const auto& device : devices) {
    std::string permissions;
    for (auto permission : device.permissions) {
      if (!permissions.empty()) permissions += ",";
      permissions += rawValue(permission);
    }
    out << device.deviceId << "  " << (device.revoked ? "revoked" : "trusted") << "  "
        << formatIso8601(device.pairedAt) << "  " << permissions << "  " << device.name << "\n";
  }
}

}  // namespace

int runTrustedDevicesTool(const std::vector<std::string>& arguments,
                          const TrustedDeviceStore& store, std::ostream& out, std::ostream& err) {
  const std::string command = arguments.empty() ? "list" : arguments[0];
  const bool listing = command == "list" && arguments.size() <= 1;
  const bool revoking = command == "revoke" && arguments.size() == 2;
  if (!listing && !revoking) {
    err << usage;
    return 2;
  }
  try {
    const auto devices = store.load();
    if (listing) {
      list(devices, out);
      return 0;
    }
    const std::string& deviceId = arguments[1];
    const auto found = std::find_if(devices.begin(), devices.end(),
                                    [&](const TrustedDevice& d) { return d.deviceId == deviceId; });
    if (found == devices.end()) {
      err << "no trusted phone with the id " << deviceId << "\n";
      return 1;
    }
    if (found->revoked) {
      out << deviceId << " was already revoked\n";
      return 0;
    }
    store.revoke(deviceId);
    out << "revoked " << deviceId << " (" << found->name << ")\n";
    return 0;
  } catch (const std::exception& error) {
    err << "the trusted phones cannot be read: " << error.what() << "\n";
    return 1;
  }
}

}  // namespace zul
