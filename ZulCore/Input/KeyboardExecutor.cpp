#include "ZulCore/Input/KeyboardExecutor.h"

#include <array>
#include <utility>
#include <vector>

namespace zul {

KeyboardExecutorError KeyboardExecutorError::unsupportedKey(std::string piece) {
  auto text = formatErrorCase("unsupportedKey", {field(piece)});
  return {Case::unsupportedKey, std::move(text), std::move(piece)};
}
KeyboardExecutorError KeyboardExecutorError::comboHasNoKey(std::string combo) {
  auto text = formatErrorCase("comboHasNoKey", {field(combo)});
  return {Case::comboHasNoKey, std::move(text), std::move(combo)};
}
KeyboardExecutorError KeyboardExecutorError::emptyCombo() {
  return {Case::emptyCombo, formatErrorCase("emptyCombo")};
}

namespace {

struct NamedValue {
  std::string_view name;
  std::uint32_t value;
};

constexpr std::array<NamedValue, 9> modifierTable = {{
    {"CTRL", modifierControl},
    {"CONTROL", modifierControl},
    {"ALT", modifierAlt},
    {"OPTION", modifierAlt},
    {"SHIFT", modifierShift},
    {"CMD", modifierSuper},
    {"COMMAND", modifierSuper},
    {"WIN", modifierSuper},
    {"META", modifierSuper},
}};

// "BACKSPACE" erases backwards; "DELETE"/"DEL" delete forwards.
constexpr std::array<NamedValue, 29> namedKeyTable = {{
    {"BACKSPACE", keysym::backSpace},
    {"DELETE", keysym::deleteKey},
    {"DEL", keysym::deleteKey},
    {"TAB", keysym::tab},
    {"ENTER", keysym::returnKey},
    {"RETURN", keysym::returnKey},
    {"ESC", keysym::escape},
    {"ESCAPE", keysym::escape},
    {"SPACE", keysym::space},
    {"PAGEUP", keysym::pageUp},
    {"PAGEDOWN", keysym::pageDown},
    {"END", keysym::end},
    {"HOME", keysym::home},
    {"LEFT", keysym::left},
    {"UP", keysym::up},
    {"RIGHT", keysym::right},
    {"DOWN", keysym::down},
    {"F1", keysym::f1},
    {"F2", keysym::f1 + 1},
    {"F3", keysym::f1 + 2},
    {"F4", keysym::f1 + 3},
    {"F5", keysym::f1 + 4},
    {"F6", keysym::f1 + 5},
    {"F7", keysym::f1 + 6},
    {"F8", keysym::f1 + 7},
    {"F9", keysym::f1 + 8},
    {"F10", keysym::f1 + 9},
    {"F11", keysym::f1 + 10},
    {"F12", keysym::f1 + 11},
}};

// Pressed in this order, released in reverse.
constexpr std::array<std::pair<std::uint32_t, std::uint32_t>, 4> modifierKeys = {{
    {modifierControl, keysym::controlL},
    {modifierAlt, keysym::altL},
    {modifierShift, keysym::shiftL},
    {modifierSuper, keysym::superL},
}};

bool isWhitespace(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

std::string_view trim(std::string_view s) {
  while (!s.empty() && isWhitespace(s.front())) s.remove_prefix(1);
  while (!s.empty() && isWhitespace(s.back())) s.remove_suffix(1);
  return s;
}

std::string upper(std::string_view s) {
  std::string out(s);
  for (char& c : out) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return out;
}

std::optional<std::uint32_t> lookup(const auto& table, std::string_view name) {
  for (const auto& row : table) {
    if (row.name == name) return row.value;
  }
  return std::nullopt;
}

// Releases whatever it pressed, also when the injector throws half-way.
class PressedKeys {
 public:
  explicit PressedKeys(InputInjector& injector) : injector_(injector) {}
  ~PressedKeys() {
    for (auto it = keys_.rbegin(); it != keys_.rend(); ++it) {
      try {
        injector_.setKey(*it, false);
      } catch (...) {
      }
    }
  }
  void press(std::uint32_t keysym) {
    keys_.push_back(keysym);
    injector_.setKey(keysym, true);
  }

 private:
  InputInjector& injector_;
  std::vector<std::uint32_t> keys_;
};

}  // namespace

KeyboardExecutor::KeyboardExecutor(std::shared_ptr<InputInjector> injector)
    : injector_(std::move(injector)) {}

std::optional<std::uint32_t> KeyboardExecutor::modifierFlag(std::string_view upperName) {
  return lookup(modifierTable, upperName);
}

std::optional<std::uint32_t> KeyboardExecutor::namedKey(std::string_view upperName) {
  return lookup(namedKeyTable, upperName);
}

KeyCombination KeyboardExecutor::parseCombo(std::string_view combo) {
  std::vector<std::string_view> pieces;
  std::size_t start = 0;
  while (start <= combo.size()) {
    std::size_t plus = combo.find('+', start);
    if (plus == std::string_view::npos) plus = combo.size();
    auto piece = trim(combo.substr(start, plus - start));
    if (!piece.empty()) pieces.push_back(piece);
    start = plus + 1;
  }
  if (pieces.empty()) throw KeyboardExecutorError::emptyCombo();

  KeyCombination result;
  bool haveKey = false;
  for (auto piece : pieces) {
    std::string name = upper(piece);
    if (auto flag = modifierFlag(name)) {
      result.modifiers |= *flag;
    } else if (auto key = namedKey(name)) {
      result.keysym = *key;
      haveKey = true;
    } else if (piece.size() == 1 &&
               ((name[0] >= 'A' && name[0] <= 'Z') || (name[0] >= '0' && name[0] <= '9'))) {
      // The unshifted symbol: Shift+A is Shift with the "a" key.
      char c = piece[0];
      if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
      result.keysym = static_cast<unsigned char>(c);
      haveKey = true;
    } else {
      throw KeyboardExecutorError::unsupportedKey(std::string(piece));
    }
  }
  if (!haveKey) throw KeyboardExecutorError::comboHasNoKey(std::string(combo));
  return result;
}

void KeyboardExecutor::sendHotkey(std::string_view combo) {
  KeyCombination parsed = parseCombo(combo);
  PressedKeys pressed(*injector_);
  for (auto [flag, key] : modifierKeys) {
    if (parsed.modifiers & flag) pressed.press(key);
  }
  pressed.press(parsed.keysym);
  // The destructor releases the key, then the modifiers in reverse order.
}

void KeyboardExecutor::releaseAll() { injector_->releaseAll(); }

void KeyboardExecutor::sendText(std::string_view text) {
  if (text.empty()) return;
  injector_->typeText(decodeUtf8(text));
}

std::u32string KeyboardExecutor::decodeUtf8(std::string_view text) {
  std::u32string out;
  out.reserve(text.size());
  std::size_t i = 0;
  while (i < text.size()) {
    auto lead = static_cast<unsigned char>(text[i]);
    int length = lead < 0x80           ? 1
                 : (lead >> 5) == 0x6  ? 2
                 : (lead >> 4) == 0xe  ? 3
                 : (lead >> 3) == 0x1e ? 4
                                       : 0;
    char32_t cp = length == 1   ? lead
                  : length == 2 ? (lead & 0x1f)
                  : length == 3 ? (lead & 0x0f)
                                : (lead & 0x07);
    bool valid = length > 0 && i + length <= text.size();
    for (int k = 1; valid && k < length; ++k) {
      auto c = static_cast<unsigned char>(text[i + k]);
      if ((c & 0xc0) != 0x80) valid = false;
      cp = (cp << 6) | (c & 0x3f);
    }
    // Overlong forms, surrogates and values past U+10FFFF are not characters.
    static constexpr char32_t minimum[] = {0, 0, 0x80, 0x800, 0x10000};
    if (valid && (cp < minimum[length] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff))) {
      valid = false;
    }
    if (valid) {
      out.push_back(cp);
      i += length;
    } else {
      out.push_back(U'\uFFFD');
      i += 1;
    }
  }
  return out;
}

}  // namespace zul
