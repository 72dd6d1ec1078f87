#include "ZulAgent/TrustedDevicesTool.h"

#include <algorithm>
#include <set>

#include "ZulCore/Support/Console.h"
#include "ZulCore/Trust/Iso8601.h"

namespace zul {
namespace {

constexpr const char* usage =
    "usage: zul-trusted-devices [list]\n"
    "       zul-trusted-devices revoke DEVICE_ID\n"
    "       zul-trusted-devices grant|deny DEVICE_ID PERMISSION\n"
    "       zul-trusted-devices log [--device DEVICE_ID] [--since 2026-11-25T00:00:00Z]\n"
    "Lists the phones paired with this computer's Velto agent, or revokes one.\n"
    "DEVICE_ID is the whole id or its end as the windows show it, when only\n"
    "one phone's id ends so. grant and deny give or take one permission (view,\n"
    "control, clipboard, files, shell, unattended); shell and unattended are\n"
    "given only here or in the trusted devices window, never by pairing.\n";

void list(const std::vector<TrustedDevice>& devices, std::ostream& out) {
  if (devices.empty()) {
    out << "no trusted phones\n";
    return;
  }
  out << "DEVICE ID  STATE  PAIRED  PERMISSIONS  NAME\n";
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

// The log, a record a line: time, event, device, then its other fields.
int printLog(const std::vector<std::string>& arguments, const AuditLog* log, std::ostream& out,
             std::ostream& err) {
  std::optional<std::string> device, since;
  for (std::size_t i = 1; i < arguments.size(); i += 2) {
    if (i + 1 >= arguments.size() || (arguments[i] != "--device" && arguments[i] != "--since")) {
      err << usage;
      return 2;
    }
    (arguments[i] == "--device" ? device : since) = arguments[i + 1];
  }
  if (since && !parseIso8601(*since)) {
    err << "--since takes a time such as 2026-11-25T08:00:00Z\n";
    return 2;
  }
  if (!log) return 0;
  const auto records = log->read(device, since);
  if (records.empty()) out << "nothing recorded\n";
  for (const auto& record : records) {
    std::string line = record.value("time", "") + "  " + record.value("event", "");
    if (record.contains("device")) line += "  " + record.value("device", "");
    for (const auto& [key, value] : record.items()) {
      if (key == "time" || key == "event" || key == "device") continue;
      line += "  " + key + "=" + (value.is_string() ? value.get<std::string>() : value.dump());
    }
    out << escapeControlCharacters(line) << "\n";
  }
  return 0;
}

}  // namespace

int runTrustedDevicesTool(const std::vector<std::string>& arguments,
                          const TrustedDeviceStore& store, std::ostream& out, std::ostream& err,
                          const AuditLog* log) {
  const std::string command = arguments.empty() ? "list" : arguments[0];
  if (command == "--help" || command == "-h" || command == "help") {
    out << usage;
    return 0;
  }
  if (command == "log") return printLog(arguments, log, out, err);
  const bool listing = command == "list" && arguments.size() <= 1;
  const bool revoking = command == "revoke" && arguments.size() == 2;
  const bool granting = (command == "grant" || command == "deny") && arguments.size() == 3;
  DevicePermission permission{};
  if (granting) {
    const auto parsed = devicePermissionFromRaw(arguments[2]);
    if (!parsed) {
      err << "no such permission: " << escapeControlCharacters(arguments[2])
          << " (view, control, clipboard, files, shell, unattended)\n";
      return 2;
    }
    permission = *parsed;
  }
  if (!listing && !revoking && !granting) {
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
    const std::string& given = arguments[1];
    // The whole id, or its end as the windows show it ("Телефон xaelS0").
    auto found = std::find_if(devices.begin(), devices.end(),
                              [&](const TrustedDevice& d) { return d.deviceId == given; });
    if (found == devices.end() && given.size() >= 4) {
      std::set<std::string> ending;
      for (auto it = devices.begin(); it != devices.end(); ++it) {
        if (it->deviceId.ends_with(given)) {
          ending.insert(it->deviceId);
          found = it;
        }
      }
      if (ending.size() > 1) {
        err << "more than one phone's id ends with " << escapeControlCharacters(given)
            << ": give the whole id (zul-trusted-devices list)\n";
        return 1;
      }
    }
    if (found == devices.end()) {
      err << "no trusted phone with the id " << escapeControlCharacters(given) << "\n";
      return 1;
    }
    const std::string deviceId = found->deviceId;
    const std::string shownId = escapeControlCharacters(deviceId);
    if (granting) {
      const bool grant = command == "grant";
      store.setPermission(deviceId, permission, grant);
      if (log) {
        log->record(
            grant ? "granted" : "withdrawn",
            {{"device", deviceId}, {"permission", rawValue(permission)}, {"by", "terminal"}});
      }
      out << (grant ? "granted " : "withdrew ") << rawValue(permission)
          << (grant ? " to " : " from ") << shownId << " (" << escapeControlCharacters(found->name)
          << ")\n";
      return 0;
    }
    if (found->revoked) {
      out << shownId << " was already revoked\n";
      return 0;
    }
    store.revoke(deviceId);
    if (log) log->record("revoked", {{"device", deviceId}, {"by", "terminal"}});
    out << "revoked " << shownId << " (" << escapeControlCharacters(found->name) << ")\n";
    return 0;
  } catch (const std::exception& error) {
    err << "the phone could not be revoked: " << escapeControlCharacters(error.what()) << "\n";
    return 1;
  }
}

}  // namespace zul
