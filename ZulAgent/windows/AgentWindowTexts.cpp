#include "ZulAgent/windows/AgentWindowTexts.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

namespace zul::windows {
namespace {

std::string lower(std::string_view text) {
  std::string out(text);
  for (auto& c : out) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

bool contains(std::string_view text, std::string_view part) {
  return text.find(part) != std::string_view::npos;
}

// The agent names a phone that gave no name "Device " and the end of its id.
std::string shownName(const std::string& name) {
  constexpr std::string_view generated = "Device ";
  return name.rfind(generated, 0) == 0 ? "Телефон " + name.substr(generated.size()) : name;
}

}  // namespace

std::optional<std::string> acceptedServerURL(std::string_view text) {
  const auto first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return std::nullopt;
  const auto last = text.find_last_not_of(" \t\r\n");
  const std::string url(text.substr(first, last - first + 1));
  // Plain http only to this machine (a development server on loopback).
  const bool plain = url.rfind("http://", 0) == 0;
  const std::string_view scheme = plain ? "http://" : "https://";
  if (url.rfind(scheme, 0) != 0) return std::nullopt;
  // The authority runs to the first "/", "?" or "#"; without user info and
  // port it must still name a host.
  std::string_view authority = std::string_view(url).substr(scheme.size());
  authority = authority.substr(0, authority.find_first_of("/?#"));
  if (const auto at = authority.rfind('@'); at != std::string_view::npos) {
    authority = authority.substr(at + 1);
  }
  std::string_view host = authority;
  if (host.rfind('[', 0) == 0) {
    host = host.substr(0, host.find(']') == std::string_view::npos ? 0 : host.find(']') + 1);
  } else {
    host = host.substr(0, host.find(':'));
  }
  if (host.empty() || host == "[]") return std::nullopt;
  if (plain && host != "localhost" && host != "[::1]" && host.rfind("127.", 0) != 0) {
    return std::nullopt;
  }
  if (url.find_first_of(" \t\r\n") != std::string::npos) return std::nullopt;
  return url;
}

StatusView statusView(std::string_view status) {
  const std::string s = lower(status);
  // "peer-ready: NAME" and "phone-left: NAME": the phone's name, as it paired.
  const auto colon = status.find(": ");
  const std::string detail =
      shownName(std::string(colon == std::string_view::npos ? "" : status.substr(colon + 2)));
  if (s.rfind("phone-left", 0) == 0)
    return {"Ожидание телефона", PillColour::accent, AgentPhase::online};
  if (contains(s, "peer-ready")) {
    return {detail.empty() ? "Подключено" : "Подключено: " + detail, PillColour::green,
            AgentPhase::online, false, ""};
  }
  if (s == "waiting" || s == "connected" || contains(s, "ready")) {
    return {"Ожидание телефона", PillColour::accent, AgentPhase::online, false, ""};
  }
  if (contains(s, "reconnecting")) {
    StatusView view{"Подключение", PillColour::accent, AgentPhase::connecting};
    if (!detail.empty()) view.problem = connectionProblem(detail);
    return view;
  }
  if (contains(s, "disconnected"))
    return {"Не в сети", PillColour::neutral, AgentPhase::connecting};
  if (contains(s, "error") || contains(s, "failed")) {
    return {std::nullopt, PillColour::neutral, AgentPhase::stopped, true};
  }
  return {};
}

std::string connectionProblem(std::string_view reason) {
  const std::string s = lower(reason);
  std::string what;
  if (contains(s, "certificate") || contains(s, "tls") || contains(s, "ssl")) {
    what = "сервер предъявил недоверенный TLS-сертификат";
  } else if (contains(s, "refused")) {
    what = "сервер отказал в соединении (порт закрыт)";
  } else if (contains(s, "resolve") || contains(s, "not known") || contains(s, "unreachable") ||
             contains(s, "no route")) {
    what = "сервер недоступен (адрес не найден или нет сети)";
  } else if (contains(s, "timed out") || contains(s, "timeout")) {
    what = "сервер не ответил вовремя";
  } else {
    what = std::string(reason);
  }
  return "Не удалось подключиться: " + what + ". Повторная попытка каждые 2 с.";
}

std::string friendlyFailure(std::string_view message) {
  const std::string s = lower(message);
  if (contains(s, "capture") || contains(message, "захват") || contains(message, "Захват") ||
      contains(message, "ЗАХВАТ")) {
    return "Не удалось начать запись экрана. Проверьте разрешение и перезапустите Velto.";
  }
  if (contains(s, "network") || contains(s, "connect")) {
    return "Не удалось связаться с сервером. Проверьте интернет и повторите попытку.";
  }
  return std::string(message);
}

std::string deviceCode(std::string_view agentId) {
  std::string tail(agentId.substr(agentId.size() > 8 ? agentId.size() - 8 : 0));
  for (auto& c : tail) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return "VELTO-PC-" + tail;
}

std::string countdownText(std::int64_t remainingSeconds) {
  if (remainingSeconds <= 0) return "Код истёк — обновите QR";
  char buffer[64];
  std::snprintf(buffer, sizeof buffer, "Код истечёт через %02lld:%02lld",
                static_cast<long long>(remainingSeconds / 60),
                static_cast<long long>(remainingSeconds % 60));
  return buffer;
}

std::vector<TrustedDevice> devicesNewestFirst(std::vector<TrustedDevice> devices) {
  std::stable_sort(
      devices.begin(), devices.end(),
      [](const TrustedDevice& a, const TrustedDevice& b) { return a.pairedAt > b.pairedAt; });
  return devices;
}

std::string deviceDetail(const TrustedDevice& device, const std::string& pairedAtText) {
  std::vector<std::string> names;
  for (auto permission : device.permissions) names.emplace_back(rawValue(permission));
  std::sort(names.begin(), names.end());
  std::string detail;
  for (const auto& name : names) detail += name + " · ";
  return detail + "добавлено " + pairedAtText;
}

std::string deviceName(const TrustedDevice& device) {
  return device.name.empty() ? device.deviceId : shownName(device.name);
}

std::optional<std::string> pairingStatus(std::string_view status) {
  const auto colon = status.find(": ");
  const std::string name =
      shownName(std::string(colon == std::string_view::npos ? "" : status.substr(colon + 2)));
  const std::string s = lower(status);
  if (s.rfind("peer-ready", 0) == 0) {
    return name.empty() ? "●  Телефон подключён" : "●  Подключён телефон: " + name;
  }
  if (s.rfind("phone-left", 0) == 0) return "●  " + name + " отключился. Ожидание телефона";
  if (s == "waiting" || s == "connected") return "●  Ожидание телефона";
  if (contains(s, "reconnecting") || contains(s, "disconnected")) {
    return "●  Нет связи с сервером, повторная попытка…";
  }
  return std::nullopt;
}

std::string connectQuestion(const std::string& phoneName) {
  return shownName(phoneName) + " хочет подключиться к этому компьютеру и управлять им. " +
         "Без ответа за 30 секунд подключение будет отклонено.";
}

IndicatorView indicatorView(bool paused, const std::string& phoneName) {
  if (paused) {
    return {"Velto приостановлен", "Телефоны не подключатся, пока вы не возобновите работу", false,
            "Возобновить"};
  }
  if (phoneName.empty()) return {"Velto работает", "Телефон не подключён", false, "Приостановить"};
  return {"Velto работает", "Подключён телефон: " + shownName(phoneName), true, "Приостановить"};
}

}  // namespace zul::windows
