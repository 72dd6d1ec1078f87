#pragma once

#include <array>
#include <optional>
#include <set>
#include <string_view>

#include "ZulCore/Support/Error.h"

namespace zul {

// The rights a phone can be granted at pairing, in their fixed order.
enum class DevicePermission { view, control, clipboard, files, shell, unattended };

inline constexpr std::array<DevicePermission, 6> allDevicePermissions = {
    DevicePermission::view,  DevicePermission::control, DevicePermission::clipboard,
    DevicePermission::files, DevicePermission::shell,   DevicePermission::unattended};

// Lower-case wire and storage name.
std::string_view rawValue(DevicePermission permission);
std::optional<DevicePermission> devicePermissionFromRaw(std::string_view raw);

class PermissionGateError : public Error {
 public:
  static PermissionGateError denied(DevicePermission permission);
  DevicePermission permission() const { return permission_; }
  friend bool operator==(const PermissionGateError& a, const PermissionGateError& b) {
    return a.permission_ == b.permission_;
  }

 private:
  PermissionGateError(DevicePermission permission, std::string text)
      : Error(std::move(text)), permission_(permission) {}
  DevicePermission permission_;
};

// One device's granted rights. It knows nothing of revocation or time: build a
// fresh gate from the device record when a session is established.
struct PermissionGate {
  std::set<DevicePermission> permissions;

  bool allows(DevicePermission permission) const { return permissions.count(permission) != 0; }
  // Throws PermissionGateError::denied(permission) when not granted.
  void demand(DevicePermission permission) const;
};

}  // namespace zul
