#include "ZulCore/Trust/Iso8601.h"

#include <cstdio>

namespace zul {

std::string formatIso8601(UtcSeconds time) {
  auto days = std::chrono::floor<std::chrono::days>(time);
  std::chrono::year_month_day date{days};
  std::chrono::hh_mm_ss clock{time - days};
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%04d-%02u-%02uT%02d:%02d:%02dZ", int(date.year()),
                unsigned(date.month()), unsigned(date.day()), int(clock.hours().count()),
                int(clock.minutes().count()), int(clock.seconds().count()));
  return buffer;
}

std::optional<UtcSeconds> parseIso8601(std::string_view text) {
  // YYYY-MM-DDTHH:MM:SSZ
  static constexpr std::string_view shape = "dddd-dd-ddTdd:dd:ddZ";
  if (text.size() != shape.size()) return std::nullopt;
  for (std::size_t i = 0; i < shape.size(); ++i) {
    const char c = text[i];
    if (shape[i] == 'd' ? (c < '0' || c > '9') : c != shape[i]) return std::nullopt;
  }
  auto number = [&](std::size_t at, std::size_t length) {
    int value = 0;
    for (std::size_t i = at; i < at + length; ++i) value = value * 10 + (text[i] - '0');
    return value;
  };
  std::chrono::year_month_day date{std::chrono::year{number(0, 4)},
                                   std::chrono::month{unsigned(number(5, 2))},
                                   std::chrono::day{unsigned(number(8, 2))}};
  const int hours = number(11, 2);
  const int minutes = number(14, 2);
  const int seconds = number(17, 2);
  if (!date.ok() || hours > 23 || minutes > 59 || seconds > 59) return std::nullopt;
  return std::chrono::sys_days{date} + std::chrono::hours{hours} + std::chrono::minutes{minutes} +
         std::chrono::seconds{seconds};
}

}  // namespace zul
