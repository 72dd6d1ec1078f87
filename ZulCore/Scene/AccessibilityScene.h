#pragma once

#include <cstdint>
#include <nlohmann/json_fwd.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "ZulCore/Input/DesktopRect.h"

namespace zul {

// One element as the phone sees it. `rect` is in the video's pixels from its
// top-left corner: the space in which the pointer executor takes taps.
struct SceneElement {
  std::string id;  // "el:" and 64 hexadecimal digits
  std::string role;
  std::string text;  // at most 512 characters
  DesktopRect rect;
  bool enabled = false;
  bool focused = false;
  std::optional<std::string> windowControl;  // "close", "minimize", "fullscreen"
  std::vector<std::string> actions;
  double importance = 0;

  nlohmann::json toJson() const;
};

struct SceneWindow {
  std::string id;  // "axwin:..."
  std::string appId;
  std::string title;
  DesktopRect rect;
  std::string icon;
  std::string process;
  std::int64_t processId = 0;
  std::string className;

  nlohmann::json toJson() const;
};

struct AccessibilityScene {
  std::int64_t sequence = 0;
  SceneWindow activeWindow;
  std::vector<SceneWindow> windows;
  std::vector<SceneElement> elements;  // most important first
};

namespace scene {

inline constexpr std::size_t maxElements = 200;
inline constexpr std::size_t maxTextCharacters = 512;

// The wire role of an AT-SPI role name ("push button" -> "button"); "unknown"
// for roles outside the table.
std::string mapRole(std::string_view platformRole);
double importance(std::string_view wireRole, double width, double height);
// "el:" + SHA-256 of role, label and the truncated rectangle, NUL-separated.
std::string elementIdentifier(std::string_view wireRole, std::string_view label,
                              const DesktopRect& rect);
// The first `maxCharacters` Unicode characters of UTF-8 text.
std::string truncateCharacters(std::string_view text, std::size_t maxCharacters);
std::string windowControlLabel(std::string_view kind);

}  // namespace scene
}  // namespace zul
