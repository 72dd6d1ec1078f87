// The agent's windows on Qt's offscreen platform: what the user sees and what
// the buttons do.
#include <gtest/gtest.h>

#include <QApplication>
#include <QClipboard>
#include <QCoreApplication>
#include <QImage>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QTemporaryDir>

#include "ZulAgent/windows/AgentSetupWindow.h"
#include "ZulAgent/windows/PairingQRWindow.h"
#include "ZulAgent/windows/TrustedDevicesWindow.h"
#include "ZulCore/Trust/MemorySecretBackend.h"

namespace zul {
namespace {

struct SetupWindow {
  bool screen = true;
  bool input = true;
  std::vector<std::string> started;
  int stops = 0;
  AgentSetupWindowController window{{[this] { return screen; }, [this] { return input; }}};

  SetupWindow() {
    window.show([this](const std::string& url) { started.push_back(url); }, [this] { ++stops; });
  }
  // The button never contradicts the status: what a press does now.
  void expect(const char* pill, const char* button, bool fieldEnabled) {
    EXPECT_EQ(window.pillText(), pill);
    EXPECT_TRUE(window.startButton()->isEnabled());
    EXPECT_EQ(window.startButton()->text(), button);
    EXPECT_EQ(window.serverField()->isEnabled(), fieldEnabled);
  }
  void press(const QString& address) {
    window.serverField()->setText(address);
    window.startButton()->click();
  }
};

TEST(AgentSetupWindow, StartsOnlyWithBothPermissionsAndAnHttpsAddress) {
  QSettings().clear();
  SetupWindow s;
  s.input = false;
  s.press("https://rv.example.com");
  EXPECT_TRUE(s.started.empty());
  EXPECT_EQ(s.window.errorText(), "Сначала предоставьте оба разрешения в настройках системы.");
  EXPECT_FALSE(QSettings().contains("ZulSignalingURL"));

  s.input = true;
  s.press("http://rv.example.com");
  EXPECT_TRUE(s.started.empty());
  EXPECT_EQ(s.window.errorText(), "Введите корректный HTTPS-адрес сервера подключения.");

  s.press("  https://rv.example.com\n");
  EXPECT_EQ(s.started, std::vector<std::string>{"https://rv.example.com"});
  EXPECT_EQ(QSettings().value("ZulSignalingURL").toString(), "https://rv.example.com");
  EXPECT_FALSE(s.window.errorVisible());
  s.expect("Подключение", "Отменить", false);

  // The stored address fills the field next time.
  SetupWindow again;
  EXPECT_EQ(again.window.serverField()->text(), "https://rv.example.com");
}

TEST(AgentSetupWindow, FollowsTheAgentsStatusAndCancels) {
  SetupWindow s;
  s.press("https://rv.example.com");
  s.window.updateTransportStatus(
      "reconnecting: transportFailed(operation: \"tls\", reason: \"certificate verify failed\")");
  EXPECT_TRUE(s.window.errorVisible());
  EXPECT_NE(s.window.errorText().indexOf("недоверенный TLS-сертификат"), -1);
  s.expect("Подключение", "Отменить", false);
  // The window grew to show the reason in full.
  EXPECT_GE(s.window.height(), s.window.minimumSizeHint().height());

  s.window.updateTransportStatus("connected");
  EXPECT_FALSE(s.window.errorVisible());
  s.expect("Ожидание телефона", "Отключить", false);
  s.window.updateTransportStatus("disconnected");
  s.expect("Не в сети", "Отменить", false);

  s.window.startButton()->click();
  EXPECT_EQ(s.stops, 1);
  // A stopping agent's last statuses change nothing.
  s.window.updateTransportStatus("connected");
  s.expect("Не в сети", "Повторить", true);
  s.window.startButton()->click();
  EXPECT_EQ(s.started.size(), 2u);
  s.expect("Подключение", "Отменить", false);

  s.window.showFailure("captureFailed(reason: \"gone\")");
  EXPECT_EQ(s.window.errorText(),
            "Не удалось начать запись экрана. Проверьте разрешение и перезапустите Velto.");
}

TEST(PairingQRWindow, CountsDownListsAndRevokesPhones) {
  auto backend = std::make_shared<MemorySecretBackend>();
  const TrustedDeviceStore store(SecretStore("trusted-devices", backend));
  PairingQRWindowController window(store);
  int refreshes = 0, ends = 0;
  window.show("zul://pair?payload=%7B%7D", "agent_abcdEFGHijklMNOP", 120, [&] { ++refreshes; });
  EXPECT_EQ(window.countdownText(), "Код истечёт через 02:00");
  EXPECT_TRUE(window.counting());
  EXPECT_EQ(window.deviceCode(), "VELTO-PC-IJKLMNOP");
  window.refresh();
  EXPECT_EQ(refreshes, 1);
  EXPECT_TRUE(window.isVisible());
  window.hide();  // closed by the user: a fresh link does not bring it back
  window.show("zul://pair?payload=%7B%7D", "agent_abcdEFGHijklMNOP", 0, [] {});
  EXPECT_EQ(window.countdownText(), "Код истёк — обновите QR");
  EXPECT_FALSE(window.counting());
  EXPECT_FALSE(window.isVisible());

  window.onEndSession = [&] { ++ends; };
  EXPECT_FALSE(window.canEndSession());
  window.updateStatus("peer-ready: Pixel 8");
  EXPECT_EQ(window.statusText(), "●  Подключён телефон: Pixel 8");
  ASSERT_TRUE(window.canEndSession());
  window.endSession();
  EXPECT_EQ(ends, 1);
  window.updateStatus("phone-left: Pixel 8");
  EXPECT_FALSE(window.canEndSession());

  const QImage qr = PairingQRWindowController::qrCodeImage(std::string(900, 'x'), 360);
  ASSERT_EQ(qr.size(), QSize(360, 360));
  EXPECT_EQ(qr.pixelColor(0, 0), QColor(Qt::white));  // the quiet zone
  int dark = 0;
  for (int y = 0; y < 360; y += 3)
    for (int x = 0; x < 360; x += 3) dark += qr.pixelColor(x, y) == QColor(Qt::black);
  EXPECT_GT(dark, 1000);

  window.showDevices();
  ASSERT_NE(window.devicesWindow(), nullptr);
  EXPECT_EQ(window.devicesWindow()->rows(),
            std::vector<std::string>{"Пока нет сопряжённых телефонов"});

  // Newest first; revoked only once the user confirms.
  auto phone = [](std::string id, std::string name, int pairedAt) {
    TrustedDevice d{.deviceId = std::move(id), .name = std::move(name), .ed25519PublicKey = "key"};
    d.permissions = {DevicePermission::view, DevicePermission::control};
    d.pairedAt = UtcSeconds{std::chrono::seconds(pairedAt)};
    return d;
  };
  store.save({phone("device_old", "Old phone", 1'000), phone("device_new", "New phone", 2'000)});
  bool answer = false;
  TrustedDevicesWindowController devices(store, [&] { return answer; });
  devices.show();
  auto rows = devices.rows();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_TRUE(rows[0].starts_with("New phone | control · view · добавлено ")) << rows[0];
  EXPECT_TRUE(rows[0].ends_with(" | Отозвать")) << rows[0];
  devices.revoke("device_new");  // "Отмена"
  EXPECT_FALSE(store.load()[1].revoked);
  answer = true;
  devices.revoke("device_new");
  EXPECT_TRUE(store.load()[1].revoked);
  EXPECT_TRUE(devices.rows()[0].ends_with(" | Отозвано (disabled)")) << devices.rows()[0];
  backend->save(SecretStore::service, "trusted-devices", toBytes("{broken"));
  devices.refresh();
  EXPECT_EQ(devices.rows(), std::vector<std::string>{"Пока нет сопряжённых телефонов"});
}

}  // namespace
}  // namespace zul

int main(int argc, char** argv) {
  qputenv("QT_QPA_PLATFORM", "offscreen");
  QApplication app(argc, argv);
  QCoreApplication::setOrganizationName("zul-tests");
  QCoreApplication::setApplicationName("zul-window-tests");
  // Settings of this process alone: tests run as parallel processes.
  QTemporaryDir settings;
  QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, settings.path());
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
