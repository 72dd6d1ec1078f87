#include "ZulAgent/windows/PairingQRWindow.h"

#include <qrencode.h>

#include <QClipboard>
#include <QGuiApplication>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPixmap>
#include <QProgressBar>
#include <QPushButton>
#include <QVBoxLayout>
#include <utility>

#include "ZulAgent/windows/AgentWindowTexts.h"
#include "ZulAgent/windows/TrustedDevicesWindow.h"

namespace zul {

PairingQRWindowController::PairingQRWindowController(TrustedDeviceStore devices)
    : store_(std::move(devices)) {
  setWindowTitle("Velto — Подключение");
  resize(600, 720);
  auto* layout = new QVBoxLayout(this);
  auto* heading = new QLabel("VELTO • БЕЗОПАСНОЕ СОПРЯЖЕНИЕ");
  heading->setStyleSheet("color: #8a8f98; font-size: 11px;");
  layout->addWidget(heading);
  auto* title = new QLabel("Подключите телефон");
  title->setStyleSheet("font-size: 20px; font-weight: 600;");
  layout->addWidget(title);
  layout->addWidget(new QLabel("Откройте Velto на телефоне и наведите камеру на код"));
  qr_ = new QLabel;
  qr_->setAlignment(Qt::AlignCenter);
  qr_->setAccessibleName("QR-код для подключения телефона");
  layout->addWidget(qr_);
  // A short https address that opens the phone app with the same link: a
  // phone's camera opens it, where it cannot open the code above.
  auto* phoneAppRow = new QHBoxLayout;
  shortQr_ = new QLabel;
  shortQr_->setAccessibleName("QR-код адреса приложения Velto");
  shortQr_->hide();
  phoneAppRow->addWidget(shortQr_);
  phoneApp_ = new QLabel;
  phoneApp_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  phoneApp_->setWordWrap(true);
  phoneApp_->hide();
  phoneAppRow->addWidget(phoneApp_, 1);
  layout->addLayout(phoneAppRow);
  status_ = new QLabel("●  Ожидание телефона");
  status_->setTextFormat(Qt::PlainText);  // a phone's name is text, never markup
  layout->addWidget(status_);
  auto* codeRow = new QHBoxLayout;
  codeRow->addWidget(new QLabel("Этот компьютер"));
  code_ = new QLabel;
  code_->setTextInteractionFlags(Qt::TextSelectableByMouse);
  codeRow->addWidget(code_);
  layout->addLayout(codeRow);
  countdown_ = new QLabel;
  layout->addWidget(countdown_);
  progress_ = new QProgressBar;
  progress_->setTextVisible(false);
  layout->addWidget(progress_);

  auto* buttons = new QHBoxLayout;
  auto add = [&](const QString& text, auto action) {
    auto* button = new QPushButton(text);
    connect(button, &QPushButton::clicked, this, action);
    buttons->addWidget(button);
    return button;
  };
  add("Копировать код",
      [this] { QGuiApplication::clipboard()->setText(QString::fromStdString(deviceCode_)); });
  add("Копировать ссылку",
      [this] { QGuiApplication::clipboard()->setText(QString::fromStdString(link_)); });
  add("Обновить QR", [this] { refresh(); })->setAccessibleName("Обновить QR-код подключения");
  add("Устройства…", [this] { showDevices(); });
  layout->addLayout(buttons);
  endSession_ = new QPushButton("Завершить сеанс телефона");
  endSession_->setEnabled(false);
  connect(endSession_, &QPushButton::clicked, this, [this] { endSession(); });
  layout->addWidget(endSession_);

  timer_.setInterval(1000);
  connect(&timer_, &QTimer::timeout, this, [this] { updateCountdown(); });
}

PairingQRWindowController::~PairingQRWindowController() = default;

void PairingQRWindowController::show(const std::string& link, const std::string& agentId,
                                     std::int64_t expiresInSeconds,
                                     std::function<void()> onRefresh) {
  link_ = link;
  onRefresh_ = std::move(onRefresh);
  expiresAt_ = std::chrono::steady_clock::now() + std::chrono::seconds(expiresInSeconds);
  deviceCode_ = windows::deviceCode(agentId);
  code_->setText(QString::fromStdString(deviceCode_));
  // Long links make dense codes: more pixels than a short one needs.
  qr_->setPixmap(QPixmap::fromImage(qrCodeImage(link, 360)));
  if (!shortAddress_.empty()) {
    shortQr_->setPixmap(QPixmap::fromImage(qrCodeImage(shortAddress_, 132)));
    shortQr_->show();
  }
  progress_->setRange(0, int(std::max<std::int64_t>(expiresInSeconds, 1)));
  timer_.start();
  updateCountdown();
  // A refreshed link stays where the user left the window.
  if (std::exchange(shown_, true)) return;
  QWidget::show();
  raise();
  activateWindow();
}

void PairingQRWindowController::updateStatus(const std::string& status) {
  // The trusted-devices window marks the phone in session.
  constexpr std::string_view ready = "peer-ready: ";
  if (status.rfind(ready, 0) == 0) connectedPhone_ = status.substr(ready.size());
  if (status.rfind("phone-left: ", 0) == 0) connectedPhone_.clear();
  if (devices_) devices_->setConnectedPhone(connectedPhone_);
  const auto text = windows::pairingStatus(status);
  if (!text) return;
  status_->setText(QString::fromStdString(*text));
  endSession_->setEnabled(status.rfind("peer-ready", 0) == 0);
}

void PairingQRWindowController::reset() {
  shown_ = false;
  timer_.stop();
  endSession_->setEnabled(false);
  status_->setText("●  Ожидание телефона");
  hide();
}

void PairingQRWindowController::endSession() {
  if (onEndSession) onEndSession();
}

QString PairingQRWindowController::statusText() const { return status_->text(); }

void PairingQRWindowController::setPhoneAppAddress(const std::string& address,
                                                   const std::string& shortAddress) {
  shortAddress_ = shortAddress;
  std::string text =
      shortAddress.empty()
          ? "Нет приложения? Откройте на телефоне " + address +
                " — это приложение Velto; «Копировать ссылку» даёт ссылку для вставки в него."
          : "Камера телефона не открывает код? Наведите её на этот код или откройте " +
                shortAddress +
                " — приложение Velto откроется сразу с этой ссылкой. "
                "Само приложение: " +
                address;
  phoneApp_->setText(QString::fromStdString(text));
  phoneApp_->setVisible(!address.empty());
  if (shortAddress.empty()) shortQr_->hide();
}

QString PairingQRWindowController::phoneAppText() const { return phoneApp_->text(); }
bool PairingQRWindowController::showsCode() const { return !qr_->pixmap().isNull(); }
bool PairingQRWindowController::canEndSession() const { return endSession_->isEnabled(); }

void PairingQRWindowController::updateCountdown() {
  // Whole seconds, rounded up: a fresh two-minute link reads 02:00, and 00:00
  // only once it has expired.
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        expiresAt_ - std::chrono::steady_clock::now())
                        .count();
  const std::int64_t remaining = left > 0 ? (left + 999) / 1000 : 0;
  countdown_->setText(QString::fromStdString(windows::countdownText(remaining)));
  progress_->setValue(int(remaining));
  if (remaining < 1) {
    timer_.stop();
    // An expired code must not be scanned at all: it is taken away, and so
    // is the link.
    qr_->setPixmap(QPixmap());
    qr_->setText("Код устарел. Нажмите «Обновить QR», чтобы получить новый.");
    shortQr_->hide();
    link_.clear();
  }
}

void PairingQRWindowController::refresh() {
  if (onRefresh_) onRefresh_();
}

void PairingQRWindowController::showDevices() {
  if (!devices_) {
    devices_ = std::make_unique<TrustedDevicesWindowController>(store_);
    devices_->setConnectedPhone(connectedPhone_);
    devices_->onRevoked = [this](const TrustedDevice& device) {
      if (onDeviceRevoked) onDeviceRevoked(device);
    };
  }
  devices_->show();
}

QString PairingQRWindowController::countdownText() const { return countdown_->text(); }

QImage PairingQRWindowController::qrCodeImage(const std::string& text, int pixelSize) {
  QRcode* code = QRcode_encodeData(
      int(text.size()), reinterpret_cast<const unsigned char*>(text.data()), 0, QR_ECLEVEL_M);
  if (!code) return {};
  const int quiet = 4;
  const int modules = code->width + 2 * quiet;
  QImage image(pixelSize, pixelSize, QImage::Format_RGB32);
  image.fill(Qt::white);
  QPainter painter(&image);
  // Whole pixels per module, centred, so that every module has the same size.
  const int scale = std::max(1, pixelSize / modules);
  const int offset = (pixelSize - modules * scale) / 2 + quiet * scale;
  for (int y = 0; y < code->width; ++y) {
    for (int x = 0; x < code->width; ++x) {
      if (code->data[y * code->width + x] & 1) {
        painter.fillRect(offset + x * scale, offset + y * scale, scale, scale, Qt::black);
      }
    }
  }
  QRcode_free(code);
  return image;
}

}  // namespace zul
