#include <gtest/gtest.h>

#include <memory>

#include "ZulCore/Input/KeyboardExecutor.h"
#include "unit/ZulCore/RecordingInputInjector.h"

namespace zul {
namespace {

using Events = std::vector<std::string>;
const PermissionGate controlGate{{DevicePermission::control}};

struct Keyboard {
  std::shared_ptr<test::RecordingInputInjector> injector =
      std::make_shared<test::RecordingInputInjector>();
  KeyboardExecutor executor{injector};
};

TEST(KeyboardExecutor, PressesModifiersAroundTheKeyAndReleasesThemInReverse) {
  struct Case {
    const char* combo;
    Events expected;
  };
  const Case cases[] = {
      {"Ctrl+C", {"key ffe3 down", "key 63 down", "key 63 up", "key ffe3 up"}},
      {" cmd + shift + 4 ",
       {"key ffe1 down", "key ffeb down", "key 34 down", "key 34 up", "key ffeb up",
        "key ffe1 up"}},
      {"Meta+l", {"key ffeb down", "key 6c down", "key 6c up", "key ffeb up"}},
      {"option+ALT+Tab", {"key ffe9 down", "key ff09 down", "key ff09 up", "key ffe9 up"}},
      {"control+alt+shift+command+F12",
       {"key ffe3 down", "key ffe9 down", "key ffe1 down", "key ffeb down", "key ffc9 down",
        "key ffc9 up", "key ffeb up", "key ffe1 up", "key ffe9 up", "key ffe3 up"}},
      {"DEL", {"key ffff down", "key ffff up"}},
      {"A+B", {"key 62 down", "key 62 up"}},
      {"PageDown", {"key ff56 down", "key ff56 up"}},
      {"\tEsc\n", {"key ff1b down", "key ff1b up"}},
  };
  for (const auto& c : cases) {
    Keyboard k;
    k.executor.sendHotkey(c.combo, controlGate);
    EXPECT_EQ(k.injector->events, c.expected) << c.combo;
  }
}

TEST(KeyboardExecutor, RejectsBadCombinationsWithTheirCase) {
  struct Case {
    const char* combo;
    KeyboardExecutorError expected;
  };
  const Case cases[] = {
      {"Shift", KeyboardExecutorError::comboHasNoKey("Shift")},
      {" + ", KeyboardExecutorError::emptyCombo()},
      {"Ctrl+F13", KeyboardExecutorError::unsupportedKey("F13")},
      {"Ctrl+ ж ", KeyboardExecutorError::unsupportedKey("ж")},
      {"Hyper+A", KeyboardExecutorError::unsupportedKey("Hyper")},
  };
  for (const auto& c : cases) {
    Keyboard k;
    try {
      k.executor.sendHotkey(c.combo, controlGate);
      ADD_FAILURE() << c.combo << " was accepted";
    } catch (const KeyboardExecutorError& e) {
      EXPECT_EQ(e, c.expected) << c.combo;
    }
    EXPECT_TRUE(k.injector->events.empty()) << c.combo;
  }
}

TEST(KeyboardExecutor, ReleasesEverythingPressedWhenTheInjectorFails) {
  struct Failing : test::RecordingInputInjector {
    void setKey(std::uint32_t keysym, bool pressed) override {
      RecordingInputInjector::setKey(keysym, pressed);
      if (keysym == 's' && pressed) throw std::runtime_error("gone");
    }
  };
  auto injector = std::make_shared<Failing>();
  KeyboardExecutor executor(injector);
  EXPECT_THROW(executor.sendHotkey("Ctrl+Shift+S", controlGate), std::runtime_error);
  EXPECT_EQ(injector->events, (Events{"key ffe3 down", "key ffe1 down", "key 73 down", "key 73 up",
                                      "key ffe1 up", "key ffe3 up"}));
}

TEST(KeyboardExecutor, TypesTextAsUnicodeCharacters) {
  Keyboard k;
  k.executor.sendText("", controlGate);
  EXPECT_TRUE(k.injector->events.empty());
  k.executor.sendText("Привет", controlGate);
  EXPECT_EQ(k.injector->events, (Events{"text 6"}));
  // Damaged UTF-8 (a stray byte, a cut sequence, overlong, surrogate) types U+FFFD.
  k.executor.sendText(
      "é😀\xff"
      "a\xe2\x82",
      controlGate);
  EXPECT_EQ(k.injector->typed,
            U"Привет"
            U"é😀\uFFFDa\uFFFD\uFFFD");
  EXPECT_EQ(KeyboardExecutor::decodeUtf8("\xc0\xaf"), U"\uFFFD\uFFFD");
  EXPECT_EQ(KeyboardExecutor::decodeUtf8("\xed\xa0\x80"), U"\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(KeyboardExecutor::decodeUtf8("\xf4\x90\x80\x80").size(), 4u);  // > U+10FFFF
}

TEST(KeyboardExecutor, RefusesWithoutControlBeforeParsing) {
  Keyboard k;
  const PermissionGate viewOnly{{DevicePermission::view}};
  EXPECT_THROW(k.executor.sendHotkey("", viewOnly), PermissionGateError);
  EXPECT_THROW(k.executor.sendHotkey("Ctrl+C", viewOnly), PermissionGateError);
  EXPECT_THROW(k.executor.sendText("hi", viewOnly), PermissionGateError);
  EXPECT_TRUE(k.injector->events.empty());
}

}  // namespace
}  // namespace zul
