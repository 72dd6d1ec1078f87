#pragma once

#include <QWidget>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <utility>

#include "ZulCore/Trust/TrustedDevice.h"
#include "ZulPlatform/linux/audit/AuditLog.h"

class QVBoxLayout;
class QLabel;

namespace zul {

// The phones allowed to connect, newest first, each with a button that
// revokes it after a confirmation. Reads and changes the store directly.
// GUI thread only.
class TrustedDevicesWindowController : public QWidget {
 public:
  // Asks whether to revoke the phone shown under this name; the default is
  // a modal question box whose default answer is not to.
  using Confirm = std::function<bool(const std::string& phoneName)>;

  // Asks whether to give a phone a permission that pairing never gives.
  using ConfirmGrant = std::function<bool(const std::string& phoneName, DevicePermission)>;

  explicit TrustedDevicesWindowController(TrustedDeviceStore store, Confirm confirm = {},
                                          ConfirmGrant confirmGrant = {});

  void show();
  void refresh();
  void revoke(const std::string& deviceId);
  // The phone in session, by the name it paired with (empty: none); its row
  // says so.
  void setConnectedPhone(const std::string& name);
  // Gives (after the confirmation) or takes `shell` or `unattended`.
  void setPermission(const std::string& deviceId, DevicePermission permission, bool granted);
  // What phones did, as the computer recorded it ("Журнал").
  void showLog();
  std::string logText() const;

  // Told after a device was revoked here.
  std::function<void(const TrustedDevice&)> onRevoked;

  // For tests: each row as "name | detail | button text (enabled or not)".
  std::vector<std::string> rows() const;

 private:
  TrustedDeviceStore store_;
  Confirm confirm_;
  ConfirmGrant confirmGrant_;
  AuditLog log_{AuditLog::defaultPath()};
  // When each phone was last in session, and the log's size and time when
  // that was read.
  std::map<std::string, UtcSeconds> lastSeen_;
  std::optional<std::pair<std::uintmax_t, std::filesystem::file_time_type>> lastSeenRead_;
  std::string connectedPhone_;
  QVBoxLayout* list_;
};

}  // namespace zul
