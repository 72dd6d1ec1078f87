#pragma once

#include <functional>
#include <nlohmann/json.hpp>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "ZulCore/Support/Guarded.h"
#include "ZulCore/Trust/TrustedDevice.h"

namespace zul {

// The trusted phones as the running agent sees them: a line for each phone
// paired or revoked since the last look, by the pairing window, the
// trusted-devices tool or another process, and the check that ends the
// session of a phone revoked while it is connected.
class TrustWatch {
 public:
  using PrintLine = std::function<void(std::string_view)>;

  // A record for the log kept on the computer: its event and fields.
  using Record = std::function<void(const std::string& event, nlohmann::json fields)>;

  // Learns the list as it is now, without a line.
  TrustWatch(TrustedDeviceStore store, PrintLine event, Record record = {});

  // The stored devices; empty when the store cannot be read.
  std::vector<TrustedDevice> list() const;
  // How a person knows a phone: the name it paired with, else its id.
  std::string deviceName(const std::string& deviceId) const;

  // A line for each device paired or revoked since the last look.
  // `sayRevoked` false: the caller tells of revokes itself.
  void noteChanges(const std::vector<TrustedDevice>& devices, bool sayRevoked = true);
  // Whether the phone is no longer trusted (revoked or gone); a store that
  // cannot be read revokes nobody. Other changes get their lines.
  bool revoked(const std::string& deviceId);
  // The device's permissions as stored now; nothing when it is not trusted
  // or the store cannot be read.
  std::optional<std::set<DevicePermission>> permissionsOf(const std::string& deviceId) const;
  // While no phone is in session: a look every fourth tick.
  void idleTick();

 private:
  TrustedDeviceStore store_;
  PrintLine event_;
  Record record_;
  unsigned idleTicks_ = 0;
  Guarded<std::optional<std::set<std::string>>> known_;
};

}  // namespace zul
