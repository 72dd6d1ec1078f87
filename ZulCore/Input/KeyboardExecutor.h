#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "ZulCore/Input/InputInjector.h"
#include "ZulCore/Support/Error.h"

namespace zul {

class KeyboardExecutorError : public Error {
 public:
  enum class Case { unsupportedKey, comboHasNoKey, emptyCombo };

  static KeyboardExecutorError unsupportedKey(std::string piece);
  static KeyboardExecutorError comboHasNoKey(std::string combo);
  static KeyboardExecutorError emptyCombo();

  Case kind() const { return kind_; }
  const std::string& payload() const { return payload_; }
  friend bool operator==(const KeyboardExecutorError& a, const KeyboardExecutorError& b) {
    return a.kind_ == b.kind_ && a.payload_ == b.payload_;
  }

 private:
  KeyboardExecutorError(Case kind, std::string text, std::string payload = {})
      : Error(std::move(text)), kind_(kind), payload_(std::move(payload)) {}
  Case kind_;
  std::string payload_;
};

// Modifier flags of a key combination.
enum KeyModifier : std::uint32_t {
  modifierShift = 1u << 0,
  modifierControl = 1u << 1,
  modifierAlt = 1u << 2,    // "ALT", "OPTION"
  modifierSuper = 1u << 3,  // "CMD", "COMMAND", "WIN", "META"
};

// A parsed combination: one key and the modifiers held around it.
struct KeyCombination {
  std::uint32_t keysym = 0;
  std::uint32_t modifiers = 0;
  friend bool operator==(const KeyCombination&, const KeyCombination&) = default;
};

// Types text and presses key combinations. Holds no state of its own.
class KeyboardExecutor {
 public:
  explicit KeyboardExecutor(std::shared_ptr<InputInjector> injector);

  // Types `text` (UTF-8; invalid bytes become U+FFFD) as Unicode characters.
  void sendText(std::string_view text);
  // Presses a combination such as "Cmd+Shift+4": modifiers down, key down and
  // up, modifiers up in reverse order, so no modifier stays down, also when
  // the injector fails half-way.
  void sendHotkey(std::string_view combo);
  // Releases every key and button still down through the injector (after a
  // release that failed); for the end of a session.
  void releaseAll();

  // The combination grammar alone; throws KeyboardExecutorError.
  static KeyCombination parseCombo(std::string_view combo);
  static std::optional<std::uint32_t> modifierFlag(std::string_view upperName);
  static std::optional<std::uint32_t> namedKey(std::string_view upperName);
  static std::u32string decodeUtf8(std::string_view text);

 private:
  std::shared_ptr<InputInjector> injector_;
};

}  // namespace zul
