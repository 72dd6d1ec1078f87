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
    const char* status;
    std::optional<std::string> pill;
    PillColour colour;
    bool retry;
    bool failure;
  };
  const Case cases[] = {
      {"peer-ready", "Подключено", PillColour::green, false, false},
      {"Connected", "Ожидание телефона", PillColour::accent, false, false},
      {"waiting", "Ожидание телефона", PillColour::accent, false, false},
      {"ready", "Ожидание телефона", PillColour::accent, false, false},
      {"reconnecting", "Подключение", PillColour::accent, false, false},
      {"disconnected", "Не в сети", PillColour::neutral, true, false},
      {"error:device-revoked", std::nullopt, PillColour::neutral, true, true},
      {"session-limit-reached", std::nullopt, PillColour::accent, false, false},
  };
  for (const auto& c : cases) {
    const auto view = statusView(c.status);
    EXPECT_EQ(view.pillText, c.pill) << c.status;
    if (c.pill) EXPECT_EQ(view.colour, c.colour) << c.status;
    EXPECT_EQ(view.enableRetry, c.retry) << c.status;
    EXPECT_EQ(view.showFailure, c.failure) << c.status;
  }
}

TEST(AgentWindowTexts, ExplainsFailuresAndCountsDown) {
  EXPECT_EQ(friendlyFailure("Screen CAPTURE failed"),
            "Не удалось начать запись экрана. Проверьте разрешение и перезапустите Velto.");
  EXPECT_EQ(friendlyFailure("could not connect: refused"),
            "Не удалось связаться с сервером. Проверьте интернет и повторите попытку.");
  EXPECT_EQ(friendlyFailure("identity broken"), "identity broken");

  EXPECT_EQ(deviceCode("agent_xyzabcdEFGH"), "VELTO-PC-ABCDEFGH");
  EXPECT_EQ(countdownText(120), "Код истечёт через 02:00");
  EXPECT_EQ(countdownText(61), "Код истечёт через 01:01");
  EXPECT_EQ(countdownText(0), "Код истёк — обновите QR");
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
}

}  // namespace
}  // namespace zul::windows
