#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ZulCore/Trust/TrustedDevice.h"

namespace zul::windows {

// What the agent's windows decide, apart from the widgets, so that it is
// tested without a screen.

// The setup window's server address: trimmed, https (http only to this
// machine's loopback), with a host; nothing
// otherwise.
std::optional<std::string> acceptedServerURL(std::string_view text);

enum class PillColour { accent, green, neutral };
// What the start button offers: start ("Включить Velto", "Повторить"), cancel
// a connection in progress ("Отменить") or disconnect ("Отключить").
enum class AgentPhase { unchanged, connecting, online, stopped };
struct StatusView {
  std::optional<std::string> pillText;  // nothing: the pill stays as it is
  PillColour colour = PillColour::accent;
  AgentPhase phase = AgentPhase::unchanged;
  bool showFailure = false;  // the status goes to the failure box
  // Why the server cannot be reached while the agent retries; an empty
  // string clears an earlier one.
  std::optional<std::string> problem;
};
// How the setup window shows a status the agent reports.
StatusView statusView(std::string_view status);
// A connection failure's reason ("certificate verify failed", "Connection
// refused", ...) in words the window shows.
std::string connectionProblem(std::string_view reason);
// The failure box's text for a failure message.
std::string friendlyFailure(std::string_view message);

// "VELTO-PC-" and the agent id's last eight characters, upper-cased.
std::string deviceCode(std::string_view agentId);
// "Код истечёт через MM:SS", or "Код истёк — обновите QR" at 0.
std::string countdownText(std::int64_t remainingSeconds);

// The devices window's rows: newest pairing first (stable), each with its
// detail line: permissions sorted by name, " · ", then "добавлено " and the date.
std::vector<TrustedDevice> devicesNewestFirst(std::vector<TrustedDevice> devices);
std::string deviceDetail(const TrustedDevice& device, const std::string& pairedAtText);
// A device's name in the windows' language: the agent names a phone that
// gave none "Device " and the end of its id, shown as "Телефон …" (so are
// the names in statuses).
std::string deviceName(const TrustedDevice& device);

// The pairing window's status line for a status the agent reports; nothing
// leaves the line as it is.
std::optional<std::string> pairingStatus(std::string_view status);

// The status-area indicator (a tray icon, else a lasting desktop
// notification): whether Velto runs or is paused, which phone is connected,
// and its buttons.
struct IndicatorView {
  std::string title;   // "Velto работает", "Velto приостановлен"
  std::string detail;  // the phone connected, or why none can connect
  bool canDisconnect = false;
  std::string pauseLabel;  // "Приостановить" or "Возобновить"
};
// `phoneName`: the phone in session as the agent names it; empty: none.
IndicatorView indicatorView(bool paused, const std::string& phoneName);
inline constexpr const char* disconnectLabel = "Отключить телефон";
// The question before a phone connects, when the agent asks.
inline constexpr const char* connectQuestionTitle = "Подключение телефона";
std::string connectQuestion(const std::string& phoneName);

}  // namespace zul::windows
