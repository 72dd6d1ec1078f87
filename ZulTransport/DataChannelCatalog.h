#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string_view>

namespace zul {

// One data channel between the phone and the agent.
struct DataChannelSpec {
  std::string_view label;  // also its key in every lookup
  bool ordered = true;
  std::optional<std::int64_t> maxRetransmits;  // absent: fully reliable
  bool binary = false;                         // false: UTF-8 JSON text
  std::int64_t maxMessageBytes = 0;            // largest payload sent or accepted

  friend bool operator==(const DataChannelSpec&, const DataChannelSpec&) = default;
};

namespace DataChannelCatalog {

inline constexpr DataChannelSpec inputFast{"input-fast", false, 0, false, 64 * 1024};
inline constexpr DataChannelSpec input{"input", true, std::nullopt, false, 1024 * 1024};
inline constexpr DataChannelSpec scene{"scene", true, std::nullopt, false, 2 * 1024 * 1024};
inline constexpr DataChannelSpec control{"control", true, std::nullopt, false, 2 * 1024 * 1024};
inline constexpr DataChannelSpec files{"files", true, std::nullopt, true, 64 * 1024};

// In creation order.
inline constexpr std::array<DataChannelSpec, 5> all{inputFast, input, scene, control, files};

// Exact, case-sensitive label match.
const DataChannelSpec* spec(std::string_view label);

}  // namespace DataChannelCatalog
}  // namespace zul
