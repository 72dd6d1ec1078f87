#include <gtest/gtest.h>

#include <memory>
#include <nlohmann/json.hpp>
#include <stdexcept>

#include "ZulCore/Input/KeyboardExecutor.h"
#include "ZulCore/Input/PointerInputExecutor.h"
#include "ZulPlatform/linux/x11/XTestInputInjector.h"
#include "integration/DesktopSession.h"

namespace zul {
namespace {

using nlohmann::json;
using test::DesktopSession;
using test::TestApp;
using test::XState;

const PermissionGate controlGate{{DevicePermission::control}};
const DesktopRect screen{0, 0, 1280, 720};

// Every test ends with nothing held and the keyboard map as it was.
class DesktopInput : public ::testing::Test {
 protected:
  void SetUp() override {
    desktop = DesktopSession::get();
    if (!desktop) GTEST_SKIP() << DesktopSession::whyMissing();
    display = desktop->display();
    mapBefore = XState::keyboardMap(display);
    injector = std::make_shared<XTestInputInjector>(display);
  }
  void TearDown() override {
    if (!desktop) return;
    EXPECT_EQ(XState::pressedKeyCount(display), 0) << "a key is still held";
    EXPECT_EQ(XState::buttonMask(display), 0u) << "a button is still held";
    EXPECT_TRUE(XState::keyboardMap(display) == mapBefore) << "the keyboard map changed";
  }

  static std::string decodedText(const std::string& line) {
    return json::parse(line.substr(5)).get<std::string>();
  }

  DesktopSession* desktop = nullptr;
  std::string display;
  std::vector<unsigned long> mapBefore;
  std::shared_ptr<XTestInputInjector> injector;
};

TEST_F(DesktopInput, PointerLandsWhereTheWireSays) {
  struct Case {
    double refW, refH;
    DesktopRect bounds;
    double x, y;
    std::pair<int, int> expected;
  };
  const Case cases[] = {
      {640, 360, screen, 100, 50, {200, 100}},
      {640, 360, screen, -5, 5000, {0, 719}},
      {640, 360, screen, 639.9, 0, {1279, 0}},
      // The right half of the screen as a display of its own.
      {1280, 720, {640, 0, 640, 720}, 0, 0, {640, 0}},
      {1280, 720, {640, 0, 640, 720}, 1000, 10, {1140, 10}},
      {1280, 720, {640, 0, 640, 720}, -300, -1, {640, 0}},
  };
  for (const auto& c : cases) {
    PointerInputExecutor pointer(VideoMapping{c.bounds, c.refW, c.refH}, injector);
    pointer.handle({{"phase", "move"}, {"x", c.x}, {"y", c.y}}, controlGate);
    EXPECT_EQ(XState::pointer(display), c.expected) << c.x << "," << c.y;
  }
}

TEST_F(DesktopInput, ButtonsDragAndScrollReachARealWindow) {
  TestApp app;
  PointerInputExecutor pointer(VideoMapping::unscaled(screen), injector);
  int cx = app.pad.x + app.pad.width / 2;
  int cy = app.pad.y + app.pad.height / 2;
  auto expect = [&](const std::string& line) {
    EXPECT_TRUE(app.waitForPrefix(line)) << "waiting for " << line;
  };

  pointer.handle({{"phase", "down"}, {"x", cx - 50}, {"y", cy}}, controlGate);
  expect("press 1 " + std::to_string(cx - 50) + " " + std::to_string(cy));
  pointer.handle({{"phase", "move"}, {"x", cx}, {"y", cy + 10}}, controlGate);
  expect("drag " + std::to_string(cx) + " " + std::to_string(cy + 10));
  pointer.handle({{"phase", "up"}, {"x", cx}, {"y", cy + 10}}, controlGate);
  expect("release 1 " + std::to_string(cx) + " " + std::to_string(cy + 10));

  pointer.handle({{"phase", "down"}, {"x", cx}, {"y", cy}, {"button", "right"}}, controlGate);
  pointer.handle({{"phase", "up"}, {"x", cx}, {"y", cy}, {"button", "right"}}, controlGate);
  expect("press 3 ");
  expect("release 3 ");
  pointer.handle({{"phase", "down"}, {"x", cx}, {"y", cy}, {"button", "middle"}}, controlGate);
  pointer.handle({{"phase", "up"}, {"x", cx}, {"y", cy}, {"button", "middle"}}, controlGate);
  expect("press 2 ");
  expect("release 2 ");

  pointer.scroll({{"x", cx}, {"y", cy}, {"dy", 2}}, controlGate);
  pointer.scroll({{"dx", -1}}, controlGate);
  pointer.scroll({{"dy", -1}, {"dx", 1}}, controlGate);
  for (const char* line :
       {"scroll down", "scroll down", "scroll left", "scroll up", "scroll right"})
    expect(line);
}

// Passes events on to the X server, except the ones it is told to fail.
class FlakyInjector : public InputInjector {
 public:
  FlakyInjector(std::shared_ptr<InputInjector> inner, int failingKeyPress, bool failReleases)
      : inner_(std::move(inner)), failingKeyPress_(failingKeyPress), failReleases_(failReleases) {}
  void movePointer(DesktopPoint p) override { inner_->movePointer(p); }
  void setButton(PointerButton b, bool pressed) override { inner_->setButton(b, pressed); }
  void scroll(int dx, int dy) override { inner_->scroll(dx, dy); }
  void setKey(std::uint32_t keysym, bool pressed) override {
    if (pressed ? ++presses_ == failingKeyPress_ : failReleases_) {
      throw std::runtime_error("the server did not take it");
    }
    inner_->setKey(keysym, pressed);
  }
  void typeText(std::u32string_view text) override { inner_->typeText(text); }
  void releaseAll() override { inner_->releaseAll(); }

 private:
  std::shared_ptr<InputInjector> inner_;
  int presses_ = 0;
  int failingKeyPress_;
  bool failReleases_;
};

// However a session goes, nothing it pressed stays down once it ends; the
// X server itself is asked what is held.
TEST_F(DesktopInput, NothingStaysPressedAfterTheSession) {
  TestApp app;
  const int cx = app.pad.x + 20, cy = app.pad.y + 20;
  auto at = [&](const char* phase, const char* button) {
    return json{{"phase", phase}, {"x", cx}, {"y", cy}, {"button", button}};
  };
  constexpr unsigned button2Held = 1u << 9, button3Held = 1u << 10;  // X's masks
  struct Case {
    const char* name;
    int failingKeyPress = 0;  // 1-based; 0: none
    bool failReleases = false;
    std::vector<json> pointer;
    const char* combo = nullptr;
    unsigned buttonsHeld;  // before the session ends
    bool keysHeld;
  };
  const Case cases[] = {
      {"down, down",
       0,
       false,
       {at("down", "left"), at("down", "right")},
       nullptr,
       button3Held,
       false},
      {"down, drag, then the session ends",
       0,
       false,
       {at("down", "middle"), at("move", "middle")},
       nullptr,
       button2Held,
       false},
      {"down left, up right", 0, false, {at("down", "left"), at("up", "right")}, nullptr, 0, false},
      {"a combination whose second key fails", 2, false, {}, "Ctrl+Shift+K", 0, false},
      {"a combination whose releases fail", 0, true, {}, "Ctrl+Alt+K", 0, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    auto flaky = std::make_shared<FlakyInjector>(injector, c.failingKeyPress, c.failReleases);
    PointerInputExecutor pointer(VideoMapping::unscaled(screen), flaky);
    KeyboardExecutor keyboard(flaky);
    for (const auto& payload : c.pointer) pointer.handle(payload, controlGate);
    try {
      if (c.combo) keyboard.sendHotkey(c.combo, controlGate);
    } catch (const std::runtime_error&) {
      // the failing key's; what matters is what stays down
    }
    EXPECT_EQ(XState::buttonMask(display), c.buttonsHeld);
    EXPECT_EQ(XState::pressedKeyCount(display) > 0, c.keysHeld);
    pointer.releaseAll();  // what every end of a session does
    EXPECT_EQ(XState::buttonMask(display), 0u);
    EXPECT_EQ(XState::pressedKeyCount(display), 0);
  }
}

TEST_F(DesktopInput, CombinationsArriveWithTheirModifiers) {
  TestApp app;
  KeyboardExecutor keyboard(injector);
  // X modifier masks: Shift 1, Control 4, Mod1 (Alt) 8, Mod4 (Super) 64.
  const std::pair<const char*, const char*> cases[] = {
      {"Ctrl+A", "key a 4"},
      {"ctrl + shift + k", "key K 5"},
      {"Alt+X", "key x 8"},
      {"Win+L", "key l 64"},
      {"option+cmd+7", "key 7 72"},
      {"F5", "key F5 0"},
      {"Backspace", "key BackSpace 0"},
      {"Delete", "key Delete 0"},
      {"Escape", "key Escape 0"},
  };
  auto isModifier = [](const std::string& line) {
    for (const char* m : {"key Control_L", "key Shift_L", "key Alt_L", "key Super_L"}) {
      if (line.rfind(m, 0) == 0) return true;
    }
    return false;
  };
  for (auto [combo, expected] : cases) {
    keyboard.sendHotkey(combo, controlGate);
    auto line = app.waitFor(
        [&](const std::string& l) { return l.rfind("key ", 0) == 0 && !isModifier(l); });
    EXPECT_EQ(line.value_or("nothing"), expected) << combo;
  }
}

TEST_F(DesktopInput, TextKeepsItsCaseUnderCapsLock) {
  TestApp app;
  KeyboardExecutor keyboard(injector);
  XState::lockCaps(display, true);
  const std::string text = "Mixed Case, ёЖ 123 !?";
  keyboard.sendText(text, controlGate);
  auto line = app.waitFor(
      [&](const std::string& l) { return l.rfind("text ", 0) == 0 && decodedText(l) == text; });
  XState::lockCaps(display, false);
  std::string seen;
  for (const auto& l : app.seen) seen += l + "\n";
  EXPECT_TRUE(line) << seen;
}

TEST_F(DesktopInput, UnicodeTextArrivesWhole) {
  TestApp app;
  KeyboardExecutor keyboard(injector);
  std::string longText;
  for (int i = 0; i < 12; ++i)
    longText += "Съешь же ещё этих мягких французских булок, да выпей чаю! ";
  longText += "Ελληνικά, 日本語, ½ ≠ ∞ 🎉";
  // More different characters than spare keys: their keys are lent out again.
  std::string alphabets =
      "АБВГДЕЁЖЗИЙКЛМНОПРСТУФХЦЧШЩЪЫЬЭЮЯ абвгдеёжзийклмнопрстуфхцчшщъыьэюя "
      "αβγδεζηθικλμνξοπρστυφχψω ÀÉÎÕÜ àéîõü ĀĒĪŌŪ";
  const std::string texts[] = {"Hello, world",
                               "Привет, мир",
                               "café ñ Ü €",
                               "😀 emoji 🚀",
                               R"(Symbols: "quoted" 'single' \ <>&~^{}|)",
                               longText,
                               alphabets};
  for (const auto& text : texts) {
    keyboard.sendHotkey("Ctrl+A", controlGate);  // typing replaces the selection
    keyboard.sendText(text, controlGate);
    auto line = app.waitFor(
        [&](const std::string& l) { return l.rfind("text ", 0) == 0 && decodedText(l) == text; },
        std::chrono::seconds(30));
    if (!line) {
      std::string got;
      for (const auto& l : app.seen) {
        if (l.rfind("text ", 0) == 0) got = decodedText(l);
      }
      std::size_t same = 0;
      while (same < got.size() && same < text.size() && got[same] == text[same]) ++same;
      ADD_FAILURE() << "typed " << text.size() << " bytes, the field has " << got.size()
                    << ", alike up to byte " << same << ": expected \""
                    << text.substr(same > 20 ? same - 20 : 0, 60) << "\" got \""
                    << got.substr(same > 20 ? same - 20 : 0, 60) << "\"";
    }
  }
}

}  // namespace
}  // namespace zul
