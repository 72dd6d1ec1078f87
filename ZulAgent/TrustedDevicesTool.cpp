#include "ZulAgent/TrustedDevicesTool.h"

#include <algorithm>

#include "ZulCore/Support/Console.h"
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
    // Ids and names come from phones: one line each, whatever they hold.
    out << escapeControlCharacters(device.deviceId) << "  "
        << (device.revoked ? "revoked" : "trusted") << "  " << formatIso8601(device.pairedAt)
        << "  " << permissions << "  " << escapeControlCharacters(device.name) << "\n";
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
  std::vector<TrustedDevice> devices;
  try {
    devices = store.load();
  } catch (const std::exception& error) {
    err << "the trusted phones cannot be read: " << escapeControlCharacters(error.what()) << "\n";
    return 1;
  }
  try {
    if (listing) {
      list(devices, out);
      return 0;
    }
    const std::string& deviceId = arguments[1];
    const std::string shownId = escapeControlCharacters(deviceId);
    const auto found = std::find_if(devices.begin(), devices.end(),
                                    [&](const TrustedDevice& d) { return d.deviceId == deviceId; });
    if (found == devices.end()) {
      err << "no trusted phone with the id " << shownId << "\n";
      return 1;
    }
    if (found->revoked) {
      out << shownId << " was already revoked\n";
      return 0;
    }
    store.revoke(deviceId);
    out << "revoked " << shownId << " (" << escapeControlCharacters(found->name) << ")\n";
    return 0;
  } catch (const std::exception& error) {
    err << "the phone could not be revoked: " << escapeControlCharacters(error.what()) << "\n";
    return 1;
  }
}

}  // namespace zul
