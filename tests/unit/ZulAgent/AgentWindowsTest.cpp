// The agent's windows on Qt's offscreen platform: what the user sees and what
// the buttons do.
#include <gtest/gtest.h>

#include <QApplication>
#include <QClipboard>
#include <QCoreApplication>
#include <QFile>
#include <QImage>
#include <QLineEdit>
#include <QPushButton>
#include <QSettings>
#include <QTemporaryDir>

#include "ZulAgent/windows/AgentSetupWindow.h"
#include "ZulAgent/windows/AgentWindowTexts.h"
#include "ZulAgent/windows/PairingQRWindow.h"
#include "ZulAgent/windows/TrustedDevicesWindow.h"
#include "ZulCore/Trust/MemorySecretBackend.h"

namespace zul {
namespace windows {
namespace {

TEST(AgentWindowTexts, AcceptsHttpsAddressesWithAHostAndPlainHttpToThisMachine) {
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"https://rv.example.com", "https://rv.example.com"},
      {"  https://rv.example.com/path?q=1 \n", "https://rv.example.com/path?q=1"},
      {"https://user@rv.example.com:8443", "https://user@rv.example.com:8443"},
      {"https://[::1]:8443", "https://[::1]:8443"},
      {"http://rv.example.com", std::nullopt},
      {"http://localhost:8443", "http://localhost:8443"},
      {"http://127.0.0.1:8443/", "http://127.0.0.1:8443/"},
      {"http://localhost.example.com", std::nullopt},
      {"HTTPS://rv.example.com", std::nullopt},
      {"https://", std::nullopt},
      {"https:///path", std::nullopt},
      {"https://:8443", std::nullopt},
      {"https://rv example.com", std::nullopt},
      {"rv.example.com", std::nullopt},
      {"   ", std::nullopt},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(acceptedServerURL(text), expected) << text;
}

TEST(AgentWindowTexts, ShowsEachStatus) {
  struct Case {
    std::string status;
    std::optional<std::string> pill;
    PillColour colour;
    AgentPhase phase;
    bool failure;
    std::optional<std::string> problem;
    std::optional<std::string> pairing;  // the pairing window's line
  };
  using enum AgentPhase;
  const auto green = PillColour::green, accent = PillColour::accent, grey = PillColour::neutral;
  const std::string retry = " Повторная попытка каждые 2 с.";
  const std::string offline = "●  Нет связи с сервером, повторная попытка…";
  const std::string cannot = "Не удалось подключиться: ";
  auto failed = [](std::string operation, std::string reason) {
    return "reconnecting: transportFailed(operation: \"" + operation + "\", reason: \"" + reason +
           "\")";
  };
  const Case cases[] = {
      {"peer-ready", "Подключено", green, online, false, "", "●  Телефон подключён"},
      // A phone named like a status word is still only a name.
      {"peer-ready: Pixel: failed", "Подключено: Pixel: failed", green, online, false, "",
       "●  Подключён телефон: Pixel: failed"},
      {"phone-left: Device x1Y2z3", "Ожидание телефона", accent, online, false, std::nullopt,
       "●  Телефон x1Y2z3 отключился. Ожидание телефона"},
      {"Connected", "Ожидание телефона", accent, online, false, "", "●  Ожидание телефона"},
      {"waiting", "Ожидание телефона", accent, online, false, "", "●  Ожидание телефона"},
      {"ready", "Ожидание телефона", accent, online, false, "", std::nullopt},
      {"reconnecting", "Подключение", accent, connecting, false, std::nullopt, offline},
      {failed("tls", "certificate verify failed"), "Подключение", accent, connecting, false,
       cannot + "сервер предъявил недоверенный TLS-сертификат." + retry, offline},
      {failed("connect", "Connection refused"), "Подключение", accent, connecting, false,
       cannot + "сервер отказал в соединении (порт закрыт)." + retry, offline},
      {failed("resolve", "x: Name or service not known"), "Подключение", accent, connecting, false,
       cannot + "сервер недоступен (адрес не найден или нет сети)." + retry, offline},
      {failed("read", "Operation timed out"), "Подключение", accent, connecting, false,
       cannot + "сервер не ответил вовремя." + retry, offline},
      {"disconnected", "Не в сети", grey, connecting, false, std::nullopt, offline},
      {"error:device-revoked", std::nullopt, grey, stopped, true},
      {"session-limit-reached", std::nullopt, accent, unchanged, false},
  };
  for (const auto& c : cases) {
    const auto view = statusView(c.status);
    EXPECT_EQ(view.pillText, c.pill) << c.status;
    if (c.pill) {
      EXPECT_EQ(view.colour, c.colour) << c.status;
    }
    EXPECT_EQ(view.phase, c.phase) << c.status;
    EXPECT_EQ(view.showFailure, c.failure) << c.status;
    EXPECT_EQ(view.problem, c.problem) << c.status;
    EXPECT_EQ(pairingStatus(c.status), c.pairing) << c.status;
  }
}

TEST(AgentWindowTexts, ExplainsFailuresAndCountsDown) {
  EXPECT_EQ(friendlyFailure("Screen CAPTURE failed"),
            "Не удалось начать запись экрана. Проверьте разрешение и перезапустите Velto.");
  EXPECT_EQ(friendlyFailure("could not connect: refused"),
            "Не удалось связаться с сервером. Проверьте интернет и повторите попытку.");
  EXPECT_EQ(friendlyFailure("identity broken"), "identity broken");

  EXPECT_EQ(countdownText(61), "Код истечёт через 01:01");
}

TEST(AgentWindowTexts, ListsDevicesNewestFirstWithSortedPermissions) {
  auto device = [](std::string id, int pairedAt) {
    TrustedDevice d;
    d.deviceId = std::move(id);
    d.permissions = {DevicePermission::view, DevicePermission::control};
    d.pairedAt = UtcSeconds{std::chrono::seconds(pairedAt)};
    return d;
  };
  const auto sorted = devicesNewestFirst({device("a", 10), device("b", 30), device("c", 10)});
  EXPECT_EQ(sorted[0].deviceId, "b");
  EXPECT_EQ(sorted[1].deviceId, "a");  // same second: stored order kept
  EXPECT_EQ(sorted[2].deviceId, "c");
  EXPECT_EQ(deviceDetail(sorted[0], "22 Nov 2026 05:00"),
            "control · view · добавлено 22 Nov 2026 05:00");
  TrustedDevice named = sorted[0];
  for (const auto& [name, shown] :
       {std::pair{"Device x1Y2z3", "Телефон x1Y2z3"}, {"Pixel 8", "Pixel 8"}, {"", "b"}}) {
    named.name = name;
    EXPECT_EQ(deviceName(named), shown);
  }
}

}  // namespace
}  // namespace windows

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

// «Запускать при входе»: an autostart entry of this user's, or none. Started
// at login, the agent connects at once to the server last used, out of the
// way; without one, or with a permission missing, the window comes in front.
TEST(AgentSetupWindow, StartsAtLoginOnlyWhenAskedAndThenConnectsAtOnce) {
  ASSERT_FALSE(AgentSetupWindowController::startsAtLogin());
  ASSERT_TRUE(AgentSetupWindowController::setStartsAtLogin(true));
  EXPECT_TRUE(AgentSetupWindowController::startsAtLogin());
  QFile entry(QString::fromStdString(AgentSetupWindowController::autostartPath()));
  ASSERT_TRUE(entry.open(QIODevice::ReadOnly));
  EXPECT_TRUE(entry.readAll().contains("--real-agent --at-login"));
  ASSERT_TRUE(AgentSetupWindowController::setStartsAtLogin(false));
  EXPECT_FALSE(AgentSetupWindowController::startsAtLogin());

  using Opening = AgentSetupWindowController::Opening;
  const struct {
    const char* stored;
    bool permitted;
    Opening opening;
    const char* expected;  // started | shown
  } cases[] = {
      {"https://rv.example.com", true, Opening::hiddenIfStarted, "https://rv.example.com | hidden"},
      {"https://rv.example.com", true, Opening::minimizedIfStarted,
       "https://rv.example.com | minimized"},
      {"https://rv.example.com", true, Opening::inFront, " | in front"},
      {"https://rv.example.com", false, Opening::hiddenIfStarted, " | in front"},
      {nullptr, true, Opening::hiddenIfStarted, " | in front"},
  };
  for (const auto& c : cases) {
    QSettings().clear();
    if (c.stored) QSettings().setValue("ZulSignalingURL", c.stored);
    AgentSetupWindowController window{{[] { return true; }, [&] { return c.permitted; }}};
    std::string started;
    window.show([&](const std::string& url) { started = url; }, {}, c.opening);
    const std::string shown = !window.isVisible()    ? "hidden"
                              : window.isMinimized() ? "minimized"
                                                     : "in front";
    EXPECT_EQ(started + " | " + shown, c.expected) << (c.stored ? c.stored : "none");
  }
}

TEST(PairingQRWindow, CountsDownListsAndRevokesPhones) {
  auto backend = std::make_shared<MemorySecretBackend>();
  const TrustedDeviceStore store(SecretStore("trusted-devices", backend));
  PairingQRWindowController window(store);
  int refreshes = 0, ends = 0;
  // An agent started at login keeps its links without opening the window.
  window.stayClosedUntilAsked();
  window.show("zul://pair?payload=%7B%7D", "agent_abcdEFGHijklMNOP", 120, [] {});
  EXPECT_FALSE(window.isVisible());
  window.showWithNextLink();
  window.show("zul://pair?payload=%7B%7D", "agent_abcdEFGHijklMNOP", 120, [&] { ++refreshes; });
  EXPECT_EQ(window.countdownText(), "Код истечёт через 02:00");
  EXPECT_TRUE(window.showsCode());
  EXPECT_TRUE(window.counting());
  EXPECT_EQ(window.deviceCode(), "VELTO-PC-IJKLMNOP");
  window.setPhoneAppAddress("https://rv.example.com");  // where the phone app lives
  EXPECT_TRUE(window.phoneAppText().contains("https://rv.example.com"));
  window.refresh();
  EXPECT_EQ(refreshes, 1);
  EXPECT_TRUE(window.isVisible());
  window.hide();  // closed by the user: a fresh link does not bring it back
  window.show("zul://pair?payload=%7B%7D", "agent_abcdEFGHijklMNOP", 0, [] {});
  EXPECT_EQ(window.countdownText(), "Код истёк — обновите QR");
  EXPECT_FALSE(window.counting());
  EXPECT_FALSE(window.isVisible());
  EXPECT_FALSE(window.showsCode());  // an expired code cannot be scanned
  window.showWithNextLink();         // asked for again from the setup window
  window.show("zul://pair?payload=%7B%7D", "agent_abcdEFGHijklMNOP", 120, [] {});
  EXPECT_TRUE(window.isVisible());
  EXPECT_TRUE(window.showsCode());

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
  std::string asked;
  TrustedDevicesWindowController devices(
      store,
      [&](const std::string& name) {
        asked = name;
        return answer;
      },
      [&](const std::string& name, DevicePermission) {
        asked = name;
        return answer;
      });
  devices.show();
  devices.setConnectedPhone("New phone");
  auto rows = devices.rows();
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_TRUE(rows[0].starts_with("New phone | control · view · добавлено ")) << rows[0];
  EXPECT_TRUE(rows[0].ends_with(" · подключён сейчас | Отозвать")) << rows[0];
  EXPECT_TRUE(rows[1].ends_with(" | Отозвать")) << rows[1];
  EXPECT_EQ(rows[1].find("подключён"), std::string::npos) << rows[1];
  // A shell only after the confirmation; withdrawn without one.
  devices.setPermission("device_new", DevicePermission::shell, true);  // "Отмена"
  EXPECT_FALSE(store.load()[1].permissions.count(DevicePermission::shell));
  answer = true;
  devices.setPermission("device_new", DevicePermission::shell, true);
  EXPECT_TRUE(store.load()[1].permissions.count(DevicePermission::shell));
  answer = false;
  devices.setPermission("device_new", DevicePermission::shell, false);
  EXPECT_FALSE(store.load()[1].permissions.count(DevicePermission::shell));
  devices.revoke("device_new");  // "Отмена"
  EXPECT_EQ(asked, "New phone");
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
  // The windows' log record of this process alone, too.
  qputenv("XDG_STATE_HOME", settings.path().toUtf8());
  qputenv("XDG_CONFIG_HOME", settings.path().toUtf8());
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
