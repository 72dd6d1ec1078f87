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
  AgentSetupWindowController window{{[this] { return screen; }, [this] { return input; }}};

  SetupWindow() {
    window.show([this](const std::string& url) { started.push_back(url); });
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
  EXPECT_FALSE(s.window.startButton()->isEnabled());
  EXPECT_EQ(s.window.startButton()->text(), "Подключение…");
  EXPECT_EQ(s.window.pillText(), "Подключение");

  // The stored address fills the field next time.
  SetupWindow again;
  EXPECT_EQ(again.window.serverField()->text(), "https://rv.example.com");
}

TEST(AgentSetupWindow, FollowsTheAgentsStatus) {
  SetupWindow s;
  s.press("https://rv.example.com");
  s.window.updateTransportStatus("connected");
  EXPECT_EQ(s.window.pillText(), "Ожидание телефона");
  s.window.updateTransportStatus("peer-ready");
  EXPECT_EQ(s.window.pillText(), "Подключено");
  s.window.updateTransportStatus("disconnected");
  EXPECT_EQ(s.window.pillText(), "Не в сети");
  EXPECT_TRUE(s.window.startButton()->isEnabled());
  EXPECT_EQ(s.window.startButton()->text(), "Повторить");

  s.window.showFailure("captureFailed(reason: \"gone\")");
  EXPECT_EQ(s.window.errorText(),
            "Не удалось начать запись экрана. Проверьте разрешение и перезапустите Velto.");
}

TrustedDevice phone(std::string id, std::string name, int pairedAt, bool revoked = false) {
  TrustedDevice d;
  d.deviceId = std::move(id);
  d.name = std::move(name);
  d.ed25519PublicKey = "key";
  d.permissions = {DevicePermission::view, DevicePermission::control};
  d.pairedAt = UtcSeconds{std::chrono::seconds(pairedAt)};
  d.revoked = revoked;
  return d;
}

TEST(PairingQRWindow, CountsDownAndRefreshes) {
  auto backend = std::make_shared<MemorySecretBackend>();
  PairingQRWindowController window(TrustedDeviceStore(SecretStore("trusted-devices", backend)));
  int refreshes = 0;
  window.show("zul://pair?payload=%7B%7D", "agent_abcdEFGHijklMNOP", 120, [&] { ++refreshes; });
  EXPECT_EQ(window.countdownText(), "Код истечёт через 02:00");
  EXPECT_TRUE(window.counting());
  EXPECT_EQ(window.deviceCode(), "VELTO-PC-IJKLMNOP");
  window.refresh();
  EXPECT_EQ(refreshes, 1);

  window.show("zul://pair?payload=%7B%7D", "agent_abcdEFGHijklMNOP", 0, [] {});
  EXPECT_EQ(window.countdownText(), "Код истёк — обновите QR");
  EXPECT_FALSE(window.counting());

  const QImage qr = PairingQRWindowController::qrCodeImage(std::string(900, 'x'), 360);
  ASSERT_FALSE(qr.isNull());
  EXPECT_EQ(qr.size(), QSize(360, 360));
  EXPECT_EQ(qr.pixelColor(0, 0), QColor(Qt::white));  // the quiet zone
  int dark = 0;
  for (int y = 0; y < 360; y += 3)
    for (int x = 0; x < 360; x += 3) dark += qr.pixelColor(x, y) == QColor(Qt::black);
  EXPECT_GT(dark, 1000);

  window.showDevices();
  ASSERT_NE(window.devicesWindow(), nullptr);
  EXPECT_EQ(window.devicesWindow()->rows(),
            std::vector<std::string>{"Пока нет подключённых телефонов"});
}

TEST(TrustedDevicesWindow, ListsNewestFirstAndRevokesAfterConfirmation) {
  auto backend = std::make_shared<MemorySecretBackend>();
  const TrustedDeviceStore store(SecretStore("trusted-devices", backend));
  store.save({phone("device_old", "Old phone", 1'000), phone("device_new", "New phone", 2'000)});
  bool answer = false;
  TrustedDevicesWindowController window(store, [&] { return answer; });
  window.show();
  auto rows = window.rows();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].substr(0, rows[0].find(" | ")), "New phone");
  EXPECT_NE(rows[0].find(" | control · view · добавлено "), std::string::npos) << rows[0];
  EXPECT_TRUE(rows[0].ends_with(" | Отозвать")) << rows[0];

  window.revoke("device_new");  // "Отмена"
  EXPECT_FALSE(store.load()[1].revoked);
  answer = true;
  window.revoke("device_new");
  EXPECT_TRUE(store.load()[1].revoked);
  EXPECT_TRUE(window.rows()[0].ends_with(" | Отозвано (disabled)")) << window.rows()[0];

  backend->save(SecretStore::service, "trusted-devices", toBytes("{broken"));
  window.refresh();
  EXPECT_EQ(window.rows(), std::vector<std::string>{"Пока нет подключённых телефонов"});
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
