#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "ZulCore/Input/InputInjector.h"

namespace zul::test {

// Records every injected event as a short text, e.g. "move 10,20",
// "button 3 down", "key ffe3 up", "scroll 0,2", "text 41", "release all".
class RecordingInputInjector : public InputInjector {
 public:
  std::vector<std::string> events;
  std::u32string typed;

  void movePointer(DesktopPoint p) override {
    events.push_back("move " + number(p.x) + "," + number(p.y));
  }
  void setButton(PointerButton b, bool pressed) override {
    events.push_back("button " + std::to_string(static_cast<int>(b)) + (pressed ? " down" : " up"));
  }
  void scroll(int dx, int dy) override {
    events.push_back("scroll " + std::to_string(dx) + "," + std::to_string(dy));
  }
  void setKey(std::uint32_t keysym, bool pressed) override {
    char buffer[16];
    std::snprintf(buffer, sizeof buffer, "%x", keysym);
    events.push_back(std::string("key ") + buffer + (pressed ? " down" : " up"));
  }
  void typeText(std::u32string_view text) override {
    typed += text;
    events.push_back("text " + std::to_string(text.size()));
  }
  void releaseAll() override { events.push_back("release all"); }

 private:
  static std::string number(double v) {
    auto s = std::to_string(v);
    s.erase(s.find_last_not_of('0') + 1);
    if (s.back() == '.') s.pop_back();
    return s;
  }
};

}  // namespace zul::test
