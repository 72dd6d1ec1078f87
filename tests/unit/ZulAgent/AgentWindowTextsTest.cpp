#include <gtest/gtest.h>

#include "ZulAgent/windows/AgentWindowTexts.h"

namespace zul::windows {
namespace {

TEST(AgentWindowTexts, AcceptsOnlyHttpsAddressesWithAHost) {
  const std::pair<const char*, std::optional<std::string>> cases[] = {
      {"https://rv.example.com", "https://rv.example.com"},
      {"  https://rv.example.com/path?q=1 \n", "https://rv.example.com/path?q=1"},
      {"https://user@rv.example.com:8443", "https://user@rv.example.com:8443"},
      {"https://[::1]:8443", "https://[::1]:8443"},
      {"http://rv.example.com", std::nullopt},
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
}  // namespace zul::windows
