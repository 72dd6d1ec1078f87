#include <gtest/gtest.h>

#include <cmath>
#include <memory>
#include <nlohmann/json.hpp>

#include "ZulCore/Input/KeyboardExecutor.h"
#include "ZulCore/Input/PointerInputExecutor.h"
#include "unit/ZulCore/Outcome.h"
#include "unit/ZulCore/RecordingInputInjector.h"

namespace zul {
namespace {

using nlohmann::json;
using Events = std::vector<std::string>;

const PermissionGate controlGate{{DevicePermission::view, DevicePermission::control}};

struct Pointer {
  explicit Pointer(DesktopRect bounds = {0, 0, 1440, 900}, double refW = 1440, double refH = 900)
      : injector(std::make_shared<test::RecordingInputInjector>()),
        executor(VideoMapping{bounds, refW, refH}, injector) {}
  Events run(std::initializer_list<json> payloads) {
    for (const auto& p : payloads) executor.handle(p, controlGate);
    return injector->events;
  }
  std::shared_ptr<test::RecordingInputInjector> injector;
  PointerInputExecutor executor;
};

struct MappingCase {
  DesktopRect bounds;
  double refW, refH;
  json x, y;
  DesktopPoint expected;
};

TEST(PointerInputExecutor, MapsWireCoordinatesOntoItsDisplayOnly) {
  const MappingCase cases[] = {
      {{0, 0, 1440, 900}, 1440, 900, 5000, 5000, {1439, 899}},
      {{0, 0, 1440, 900}, 0, 0, 0.5, 0.25, {720, 225}},  // a zero reference acts as 1
      {{-1920, -200, 1920, 1080}, 1920, 1080, -10, 5000, {-1920, 879}},
      {{-1920, -200, 1920, 1080}, 960, 540, 480, 270, {-960, 340}},
      {{1440, 0, 1280, 720}, 1280, 720, "12", json(), {1440, 0}},  // non-numbers are 0
  };
  for (const auto& c : cases) {
    Pointer p(c.bounds, c.refW, c.refH);
    p.run({{{"phase", "move"}, {"x", c.x}, {"y", c.y}}});
    EXPECT_EQ(p.executor.lastPoint(), c.expected) << c.x << "," << c.y;
  }
}

TEST(PointerInputExecutor, TurnsPhasesIntoPressDragAndRelease) {
  struct Case {
    std::vector<json> payloads;
    Events expected;
  };
  const Case cases[] = {
      {{{{"phase", "down"}, {"x", 1}, {"y", 2}, {"button", "right"}},
        {{"phase", "move"}, {"x", 3}, {"y", 4}},
        {{"phase", "up"}, {"x", 5}, {"y", 6}, {"button", "right"}}},
       {"move 1,2", "button 3 down", "move 3,4", "move 5,6", "button 3 up"}},
      // An "up" naming another button ends the held one too.
      {{{{"phase", "down"}, {"button", "left"}}, {{"phase", "up"}, {"button", "right"}}},
       {"move 0,0", "button 1 down", "move 0,0", "button 1 up", "move 0,0", "button 3 up"}},
      // One button at a time: a second "down" lets go of the first.
      {{{{"phase", "down"}, {"button", "left"}}, {{"phase", "down"}, {"button", "right"}}},
       {"move 0,0", "button 1 down", "move 0,0", "button 1 up", "move 0,0", "button 3 down"}},
      {{{{"phase", "down"}, {"button", "middle"}}}, {"move 0,0", "button 2 down"}},
      // Unknown names act as the left button; matching is case-sensitive.
      {{{{"phase", "down"}, {"button", "Right"}}}, {"move 0,0", "button 1 down"}},
      {{{{"phase", "move"}, {"x", 9}, {"button", "right"}}}, {"move 9,0"}},
      {{{{"phase", "scroll"}, {"x", 9}}, {{"x", 1}}, {{"phase", 3}}, json::array()}, {}},
  };
  for (const auto& c : cases) {
    Pointer p;
    for (const auto& payload : c.payloads) p.executor.handle(payload, controlGate);
    EXPECT_EQ(p.injector->events, c.expected) << json(c.payloads).dump();
  }
}

// A session that ends mid-drag lets go of the button where the pointer is.
TEST(PointerInputExecutor, ReleasesTheHeldButtonOnceAtTheLastPoint) {
  Pointer p;
  p.run({{{"phase", "down"}, {"button", "middle"}, {"x", 10}, {"y", 20}},
         {{"phase", "move"}, {"x", 50}, {"y", 60}}});
  p.injector->events.clear();
  p.executor.releaseHeldButton();
  p.executor.releaseHeldButton();
  EXPECT_EQ(p.injector->events, (Events{"move 50,60", "button 2 up"}));
  p.run({{{"phase", "down"}, {"button", "right"}}});
  p.injector->events.clear();
  p.executor.releaseAll();
  EXPECT_EQ(p.injector->events, (Events{"release all"}));
  EXPECT_FALSE(p.executor.heldButton());
}

// Scene rectangles go out in video pixels and taps come back in them: the
// middle of every rectangle, tapped, lands within a pixel of the element's
// true middle, for captures smaller than the display and displays anywhere.
TEST(VideoMapping, TheMiddleOfASceneRectangleTapsTheElementsMiddle) {
  struct Case {
    VideoMapping video;
    DesktopRect element;  // desktop pixels
  };
  const Case cases[] = {
      {{{0, 0, 1920, 1080}, 1280, 720}, {0, 1049, 13, 31}},
      {{{1920, 176, 1280, 1024}, 900, 720}, {2000, 300, 121, 27}},
      {{{-1280, -200, 1280, 1024}, 900, 720}, {-1279, -199, 17, 17}},
  };
  for (const auto& c : cases) {
    const DesktopRect seen = c.video.toVideo(c.element);
    // The phone receives whole numbers.
    const double x = std::trunc(seen.x), y = std::trunc(seen.y);
    const double w = std::trunc(seen.width), h = std::trunc(seen.height);
    const DesktopPoint tap = c.video.toDesktop(x + w / 2, y + h / 2);
    EXPECT_NEAR(tap.x, c.element.x + c.element.width / 2, 1.5) << c.element.x;
    EXPECT_NEAR(tap.y, c.element.y + c.element.height / 2, 1.5) << c.element.y;
  }
}

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
    EXPECT_EQ(
        test::outcome<KeyboardExecutorError>([&] { k.executor.sendHotkey(c.combo, controlGate); }),
        c.expected.text());
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

TEST(InputExecutors, RefuseWithoutControlBeforeLookingAtThePayload) {
  for (const auto& gate : {PermissionGate{{DevicePermission::view}}, PermissionGate{}}) {
    Pointer p;
    EXPECT_THROW(p.executor.handle({{"phase", "down"}}, gate), PermissionGateError);
    EXPECT_THROW(p.executor.scroll({{"dy", 3}}, gate), PermissionGateError);
    EXPECT_TRUE(p.injector->events.empty());
    EXPECT_FALSE(p.executor.heldButton());
    Keyboard k;
    EXPECT_THROW(k.executor.sendHotkey("", gate), PermissionGateError);
    EXPECT_THROW(k.executor.sendHotkey("Ctrl+C", gate), PermissionGateError);
    EXPECT_THROW(k.executor.sendText("hi", gate), PermissionGateError);
    EXPECT_TRUE(k.injector->events.empty());
  }
}

TEST(PointerInputExecutor, ScrollsInWholeStepsAndKeepsFractions) {
  Pointer p;
  p.executor.scroll({{"dy", 2}, {"x", 100}, {"y", 50}}, controlGate);
  p.executor.scroll({{"dx", -1}}, controlGate);
  p.executor.scroll({{"dy", 0.4}}, controlGate);
  p.executor.scroll({{"dy", 0.7}}, controlGate);
  p.executor.scroll({{"dy", "lots"}}, controlGate);
  p.executor.scroll({{"dy", 1e9}}, controlGate);
  EXPECT_EQ(p.injector->events,
            (Events{"move 100,50", "scroll 0,2", "scroll -1,0", "scroll 0,1", "scroll 0,100"}));
}

}  // namespace
}  // namespace zul
