#pragma once

#include <QWidget>
#include <functional>
#include <string>

#include "ZulCore/Trust/TrustedDevice.h"

class QVBoxLayout;
class QLabel;

namespace zul {

// The phones allowed to connect, newest first, each with a button that
// revokes it after a confirmation. Reads and changes the store directly.
// GUI thread only.
class TrustedDevicesWindowController : public QWidget {
 public:
  // Asks whether to revoke; the default is a modal question box.
  using Confirm = std::function<bool()>;

  explicit TrustedDevicesWindowController(TrustedDeviceStore store, Confirm confirm = {});

  void show();
  void refresh();
  void revoke(const std::string& deviceId);

  // Told after a device was revoked here.
  std::function<void(const TrustedDevice&)> onRevoked;

  // For tests: each row as "name | detail | button text (enabled or not)".
  std::vector<std::string> rows() const;

 private:
  TrustedDeviceStore store_;
  Confirm confirm_;
  QVBoxLayout* list_;
};

}  // namespace zul
