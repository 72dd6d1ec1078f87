#pragma once

#include <chrono>
#include <optional>
#include <string>
#include <string_view>

namespace zul {

using UtcSeconds = std::chrono::sys_seconds;

// "2026-11-15T18:09:39Z": UTC, whole seconds, "Z".
std::string formatIso8601(UtcSeconds time);
// Accepts exactly that form (no fractions, no other zone, a real calendar date).
std::optional<UtcSeconds> parseIso8601(std::string_view text);

}  // namespace zul
