#include "ZulCore/Scene/AccessibilityScene.h"

#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <nlohmann/json.hpp>

namespace zul {
namespace {

std::int64_t truncated(double value) {
  if (!std::isfinite(value)) return 0;
  value = std::clamp(value, -1e15, 1e15);
  return static_cast<std::int64_t>(value);
}

nlohmann::json rectJson(const DesktopRect& rect) {
  nlohmann::json out = nlohmann::json::object();
  out["x"] = truncated(rect.x);
  out["y"] = truncated(rect.y);
  out["w"] = truncated(rect.width);
  out["h"] = truncated(rect.height);
  return out;
}

struct RoleRow {
  std::string_view platform;
  std::string_view wire;
};

// AT-SPI role names (as atspi_role_get_name spells them) to wire roles.
constexpr std::array<RoleRow, 38> roleTable = {{
    {"push button", "button"},
    {"toggle button", "button"},
    {"button", "button"},
    {"text", "textfield"},
    {"entry", "textfield"},
    {"password text", "textfield"},
    {"editbar", "textfield"},
    {"check box", "checkbox"},
    {"switch", "checkbox"},
    {"radio button", "radio"},
    {"combo box", "combobox"},
    {"link", "link"},
    {"page tab list", "tab"},
    {"page tab", "tab"},
    {"menu item", "menuitem"},
    {"check menu item", "menuitem"},
    {"radio menu item", "menuitem"},
    {"tearoff menu item", "menuitem"},
    {"slider", "slider"},
    {"frame", "dialog"},
    {"window", "dialog"},
    {"dialog", "dialog"},
    {"alert", "dialog"},
    {"file chooser", "dialog"},
    {"color chooser", "dialog"},
    {"font chooser", "dialog"},
    {"scroll pane", "scrollarea"},
    {"list", "scrollarea"},
    {"list box", "scrollarea"},
    {"table", "scrollarea"},
    {"tree table", "scrollarea"},
    {"tree", "scrollarea"},
    {"viewport", "scrollarea"},
    {"label", "text"},
    {"static", "text"},
    {"heading", "text"},
    {"caption", "text"},
    {"paragraph", "text"},
}};

}  // namespace

nlohmann::json SceneElement::toJson() const {
  nlohmann::json state = nlohmann::json::object();
  state["enabled"] = enabled;
  state["focused"] = focused;
  if (windowControl) state["windowControl"] = *windowControl;
  nlohmann::json out = nlohmann::json::object();
  out["id"] = id;
  out["role"] = role;
  out["text"] = text;
  out["rect"] = rectJson(rect);
  out["state"] = std::move(state);
  out["confidence"] = 1.0;
  out["actions"] = actions;
  out["importance"] = importance;
  return out;
}

nlohmann::json SceneWindow::toJson() const {
  nlohmann::json out = nlohmann::json::object();
  out["id"] = id;
  out["appId"] = appId;
  out["title"] = title;
  out["rect"] = rectJson(rect);
  out["icon"] = icon;
  out["process"] = process;
  out["pid"] = processId;
  out["className"] = className;
  return out;
}

namespace scene {

std::string mapRole(std::string_view platformRole) {
  for (const auto& row : roleTable) {
    if (row.platform == platformRole) return std::string(row.wire);
  }
  return "unknown";
}

double importance(std::string_view wireRole, double width, double height) {
  double base = 0.45;
  if (wireRole == "dialog")
    base = 0.9;
  else if (wireRole == "button")
    base = 0.85;
  else if (wireRole == "textfield")
    base = 0.78;
  else if (wireRole == "link")
    base = 0.7;
  else if (wireRole == "tab")
    base = 0.68;
  else if (wireRole == "text")
    base = 0.25;
  double area = std::max(width, 0.0) * std::max(height, 0.0);
  double bonus = std::isfinite(area) ? std::min(std::sqrt(area) / 2000.0, 0.1) : 0.1;
  return std::min(base + bonus, 1.0);
}

std::string elementIdentifier(std::string_view wireRole, std::string_view label,
                              const DesktopRect& rect) {
  std::string key;
  key.append(wireRole);
  key.push_back('\0');
  key.append(label);
  for (double v : {rect.x, rect.y, rect.width, rect.height}) {
    key.push_back('\0');
    key += std::to_string(truncated(v));
  }
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  EVP_Digest(key.data(), key.size(), digest, &length, EVP_sha256(), nullptr);
  static constexpr char hex[] = "0123456789abcdef";
  std::string out = "el:";
  for (unsigned int i = 0; i < length; ++i) {
    out.push_back(hex[digest[i] >> 4]);
    out.push_back(hex[digest[i] & 0xf]);
  }
  return out;
}

std::string truncateCharacters(std::string_view text, std::size_t maxCharacters) {
  std::size_t count = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    // Every byte that is not a continuation byte starts a character.
    if ((static_cast<unsigned char>(text[i]) & 0xc0) != 0x80) {
      if (count == maxCharacters) return std::string(text.substr(0, i));
      ++count;
    }
  }
  return std::string(text);
}

std::string windowControlLabel(std::string_view kind) {
  if (kind == "close") return "Close window";
  if (kind == "minimize") return "Minimize window";
  if (kind == "fullscreen") return "Full screen";
  return "Window control";
}

}  // namespace scene
}  // namespace zul
