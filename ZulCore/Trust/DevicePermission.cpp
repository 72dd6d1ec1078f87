#include "ZulCore/Trust/DevicePermission.h"

#include <string>

namespace zul {

std::string_view rawValue(DevicePermission permission) {
  switch (permission) {
    case DevicePermission::view: return "view";
    case DevicePermission::control: return "control";
    case DevicePermission::clipboard: return "clipboard";
    case DevicePermission::files: return "files";
    case DevicePermission::shell: return "shell";
    case DevicePermission::unattended: return "unattended";
  }
  return "view";
}

std::optional<DevicePermission> devicePermissionFromRaw(std::string_view raw) {
  for (auto permission : allDevicePermissions) {
    if (rawValue(permission) == raw) return permission;
  }
  return std::nullopt;
}

PermissionGateError PermissionGateError::denied(DevicePermission permission) {
  return {permission, "denied(" + std::string(rawValue(permission)) + ")"};
}

void PermissionGate::demand(DevicePermission permission) const {
  if (!allows(permission)) throw PermissionGateError::denied(permission);
}

}  // namespace zul
