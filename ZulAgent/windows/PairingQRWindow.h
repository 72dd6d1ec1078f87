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
class QPushButton;

namespace zul {

class TrustedDevicesWindowController;

// Shows the pairing link as a QR code for the phone to scan, with a countdown
// to its expiry, copy buttons, a refresh that asks the agent for a new link,
// and the trusted devices window. GUI thread only.
class PairingQRWindowController : public QWidget {
 public:
  explicit PairingQRWindowController(TrustedDeviceStore devices);
  ~PairingQRWindowController() override;

  // Shows the window in front for the first link after construction or
  // reset(); later links only refill it where it is.
  void show(const std::string& link, const std::string& agentId, std::int64_t expiresInSeconds,
            std::function<void()> onRefresh);
  void updateCountdown();
  // The agent's status ("waiting", "peer-ready: NAME", "phone-left: NAME",
  // "reconnecting…"): the status line, and whether a session can be ended.
  void updateStatus(const std::string& status);
  // Hides the window until the next agent's first link.
  void reset();

  // "Завершить сеанс": ends the session of the phone in session.
  std::function<void()> onEndSession;
  // Told when a phone is revoked in the devices window.
  std::function<void(const TrustedDevice&)> onDeviceRevoked;

  // The QR code of `text` (error correction M), `pixelSize` square; a null
  // image when the text cannot be encoded.
  static QImage qrCodeImage(const std::string& text, int pixelSize);

  // For tests.
  QString countdownText() const;
  // Where the phone app lives (the server the agent uses serves it): shown
  // under the code, for a phone whose camera does not open the link; with a
  // short address that opens the app with the current link (a development
  // server keeps one), that address and its own small code.
  void setPhoneAppAddress(const std::string& address, const std::string& shortAddress = {});
  QString phoneAppText() const;
  // Whether a code is on show (an expired one is taken away).
  bool showsCode() const;
  // The person asked for the window again: the next link brings it back
  // even though they closed it.
  void showWithNextLink() { shown_ = false; }
  // The links that come are kept up to date but do not open the window
  // (an agent started at login), until the person asks for it.
  void stayClosedUntilAsked() { shown_ = true; }
  QString statusText() const;
  bool canEndSession() const;
  void endSession();
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
  QLabel* phoneApp_;
  QLabel* shortQr_;
  std::string shortAddress_;
  QLabel* code_;
  QLabel* countdown_;
  QLabel* status_;
  QPushButton* endSession_;
  bool shown_ = false;
  QProgressBar* progress_;
  std::unique_ptr<TrustedDevicesWindowController> devices_;
  std::string connectedPhone_;  // the name of the phone in session
};

}  // namespace zul
