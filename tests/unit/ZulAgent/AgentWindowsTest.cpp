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

// Each step, then what the window shows: pill | button (never contradicting
// the status) | whether the address can be edited | the error's start, and
// starts/stops asked of the agent. A stopping agent's statuses change nothing.
TEST(AgentSetupWindow, StartsOnlyWhenReadyFollowsTheAgentAndCancels) {
  QSettings().clear();
  bool input = false;
  std::vector<std::string> started;
  int stops = 0;
  AgentSetupWindowController window{{[] { return true; }, [&] { return input; }}};
  window.show([&](const std::string& url) { started.push_back(url); }, [&] { ++stops; });
  const std::pair<std::string, std::string> steps[] = {
      {"press https://rv.example.com",
       "Не в сети | Включить Velto | editable | Сначала предоставьте | 0/0"},
      {"allow", ""},
      {"press http://rv.example.com",
       "Не в сети | Включить Velto | editable | Введите корректный H | 0/0"},
      {"press   https://rv.example.com\n", "Подключение | Отменить | fixed |  | 1/0"},
      {R"(reconnecting: transportFailed(operation: "tls", reason: "certificate verify failed"))",
       "Подключение | Отменить | fixed | Не удалось подключит | 1/0"},
      {"connected", "Ожидание телефона | Отключить | fixed |  | 1/0"},
      {"disconnected", "Не в сети | Отменить | fixed |  | 1/0"},
      {"click", "Не в сети | Повторить | editable |  | 1/1"},
      {"connected", "Не в сети | Повторить | editable |  | 1/1"},
      {"click", "Подключение | Отменить | fixed |  | 2/1"},
      {"failure captureFailed(reason: \"gone\")",
       "Подключение | Повторить | editable | Не удалось начать за | 2/1"},
  };
  for (const auto& [step, expected] : steps) {
    if (step == "allow") {
      EXPECT_FALSE(QSettings().contains("ZulSignalingURL"));
      input = true;
      continue;
    }
    if (step.starts_with("press ")) {
      window.serverField()->setText(QString::fromStdString(step.substr(6)));
      window.startButton()->click();
    } else if (step == "click") {
      window.startButton()->click();
    } else if (step.starts_with("failure ")) {
      window.showFailure(step.substr(8));
    } else {
      window.updateTransportStatus(step);
    }
    EXPECT_TRUE(window.startButton()->isEnabled());
    const QString shown = window.pillText() + " | " + window.startButton()->text() + " | " +
                          (window.serverField()->isEnabled() ? "editable" : "fixed") + " | " +
                          (window.errorVisible() ? window.errorText().left(20) : "") + " | " +
                          QString::number(started.size()) + "/" + QString::number(stops);
    EXPECT_EQ(shown.toStdString(), expected) << step;
  }
  EXPECT_GE(window.height(), window.minimumSizeHint().height());  // grown to show the reason
  // Trimmed, kept only once started; fills the field next time.
  EXPECT_EQ(started, std::vector<std::string>(2, "https://rv.example.com"));
  EXPECT_EQ(QSettings().value("ZulSignalingURL").toString(), "https://rv.example.com");
  AgentSetupWindowController again{{[] { return true; }, [] { return true; }}};
  again.show([](const std::string&) {});
  EXPECT_EQ(again.serverField()->text(), "https://rv.example.com");
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
