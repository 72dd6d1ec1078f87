#pragma once

#include <QImage>
#include <QTimer>
#include <QWidget>
#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "ZulCore/Trust/TrustedDevice.h"

class QLabel;
class QProgressBar;

namespace zul {

class TrustedDevicesWindowController;

// Shows the pairing link as a QR code for the phone to scan, with a countdown
// to its expiry, copy buttons, a refresh that asks the agent for a new link,
// and the trusted devices window. GUI thread only.
class PairingQRWindowController : public QWidget {
 public:
  explicit PairingQRWindowController(TrustedDeviceStore devices);
  ~PairingQRWindowController() override;

  void show(const std::string& link, const std::string& agentId, std::int64_t expiresInSeconds,
            std::function<void()> onRefresh);
  void updateCountdown();

  // The QR code of `text` (error correction M), `pixelSize` square; a null
  // image when the text cannot be encoded.
  static QImage qrCodeImage(const std::string& text, int pixelSize);

  // For tests.
  QString countdownText() const;
  bool counting() const { return timer_.isActive(); }
  const std::string& deviceCode() const { return deviceCode_; }
  void refresh();
  void showDevices();
  TrustedDevicesWindowController* devicesWindow() const { return devices_.get(); }

 private:
  TrustedDeviceStore store_;
  std::function<void()> onRefresh_;
  QTimer timer_;
  std::chrono::steady_clock::time_point expiresAt_;
  std::string link_;
  std::string deviceCode_;
  QLabel* qr_;
  QLabel* code_;
  QLabel* countdown_;
  QProgressBar* progress_;
  std::unique_ptr<TrustedDevicesWindowController> devices_;
};

}  // namespace zul
