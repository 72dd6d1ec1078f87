#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <nlohmann/json.hpp>

#include "ZulCore/Input/KeyboardExecutor.h"
#include "ZulCore/Input/PointerInputExecutor.h"
#include "ZulCore/Scene/AccessibilitySceneSource.h"
#include "support/Outcome.h"
#include "unit/ZulCore/RecordingInputInjector.h"

namespace zul {
namespace {

using nlohmann::json;
using Events = std::vector<std::string>;

using enum PointerPhase;
constexpr auto left = PointerButton::left, middle = PointerButton::middle,
               right = PointerButton::right;

struct Pointer {
  explicit Pointer(DesktopRect bounds = {0, 0, 1440, 900}, double refW = 1440, double refH = 900)
      : injector(std::make_shared<test::RecordingInputInjector>()),
        executor(VideoMapping{bounds, refW, refH}, injector) {}
  Events run(std::initializer_list<PointerAction> actions) {
    for (const auto& action : actions) executor.handle(action);
    return injector->events;
  }
  std::shared_ptr<test::RecordingInputInjector> injector;
  PointerInputExecutor executor;
};

struct MappingCase {
  DesktopRect bounds;
  double refW, refH;
  double x, y;
  DesktopPoint expected;
};

TEST(PointerInputExecutor, MapsWireCoordinatesOntoItsDisplayOnly) {
  const MappingCase cases[] = {
      {{0, 0, 1440, 900}, 1440, 900, 5000, 5000, {1439, 899}},
      {{0, 0, 1440, 900}, 0, 0, 0.5, 0.25, {720, 225}},  // a zero reference acts as 1
      {{-1920, -200, 1920, 1080}, 1920, 1080, -10, 5000, {-1920, 879}},
      {{-1920, -200, 1920, 1080}, 960, 540, 480, 270, {-960, 340}},
  };
  for (const auto& c : cases) {
    Pointer p(c.bounds, c.refW, c.refH);
    p.run({{move, c.x, c.y}});
    EXPECT_EQ(p.executor.lastPoint(), c.expected) << c.x << "," << c.y;
  }
}

TEST(PointerInputExecutor, TurnsPhasesIntoPressDragAndRelease) {
  struct Case {
    std::vector<PointerAction> actions;
    Events expected;
  };
  const Case cases[] = {
      {{{down, 1, 2, right}, {move, 3, 4}, {up, 5, 6, right}},
       {"move 1,2", "button 3 down", "move 3,4", "move 5,6", "button 3 up"}},
      // An "up" naming another button ends the held one too.
      {{{down, 0, 0, left}, {up, 0, 0, right}},
       {"move 0,0", "button 1 down", "move 0,0", "button 1 up", "move 0,0", "button 3 up"}},
      // One button at a time: a second "down" lets go of the first.
      {{{down, 0, 0, left}, {down, 0, 0, right}},
       {"move 0,0", "button 1 down", "move 0,0", "button 1 up", "move 0,0", "button 3 down"}},
      {{{down, 0, 0, middle}}, {"move 0,0", "button 2 down"}},
      {{{move, 9, 0, right}}, {"move 9,0"}},
  };
  for (const auto& c : cases) {
    Pointer p;
    for (const auto& action : c.actions) p.executor.handle(action);
    EXPECT_EQ(p.injector->events, c.expected);
  }
}

// A session that ends mid-drag lets go of the button where the pointer is.
TEST(PointerInputExecutor, ReleasesTheHeldButtonOnceAtTheLastPoint) {
  Pointer p;
  p.run({{down, 10, 20, middle}, {move, 50, 60}});
  p.injector->events.clear();
  p.executor.releaseHeldButton();
  p.executor.releaseHeldButton();
  EXPECT_EQ(p.injector->events, (Events{"move 50,60", "button 2 up"}));
  p.run({{down, 0, 0, right}});
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
    k.executor.sendHotkey(c.combo);
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
    EXPECT_EQ(test::outcome<KeyboardExecutorError>([&] { k.executor.sendHotkey(c.combo); }),
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
  EXPECT_THROW(executor.sendHotkey("Ctrl+Shift+S"), std::runtime_error);
  EXPECT_EQ(injector->events, (Events{"key ffe3 down", "key ffe1 down", "key 73 down", "key 73 up",
                                      "key ffe1 up", "key ffe3 up"}));
}

TEST(KeyboardExecutor, TypesTextAsUnicodeCharacters) {
  Keyboard k;
  k.executor.sendText("");
  EXPECT_TRUE(k.injector->events.empty());
  k.executor.sendText("Привет");
  EXPECT_EQ(k.injector->events, (Events{"text 6"}));
  // Damaged UTF-8 (a stray byte, a cut sequence, overlong, surrogate) types U+FFFD.
  k.executor.sendText(
      "é😀\xff"
      "a\xe2\x82");
  EXPECT_EQ(k.injector->typed,
            U"Привет"
            U"é😀\uFFFDa\uFFFD\uFFFD");
  EXPECT_EQ(KeyboardExecutor::decodeUtf8("\xc0\xaf"), U"\uFFFD\uFFFD");
  EXPECT_EQ(KeyboardExecutor::decodeUtf8("\xed\xa0\x80"), U"\uFFFD\uFFFD\uFFFD");
  EXPECT_EQ(KeyboardExecutor::decodeUtf8("\xf4\x90\x80\x80").size(), 4u);  // > U+10FFFF
}

TEST(PointerInputExecutor, ScrollsInWholeStepsAndKeepsFractions) {
  Pointer p;
  p.executor.scroll({0, 2, std::pair(100.0, 50.0)});
  p.executor.scroll({-1, 0});
  p.executor.scroll({0, 0.4});
  p.executor.scroll({0, 0.7});
  p.executor.scroll({0, 1e9});
  EXPECT_EQ(p.injector->events,
            (Events{"move 100,50", "scroll 0,2", "scroll -1,0", "scroll 0,1", "scroll 0,100"}));
}

using namespace std::chrono_literals;

struct FakeElement : AccessibleElement {
  AccessibleElementInfo info;
  std::vector<std::shared_ptr<FakeElement>> kids;
  bool focusable = false;
  int focusCalls = 0;
  std::vector<std::string> performed;
  std::int32_t actionResult = 0;
};

std::shared_ptr<FakeElement> node(std::string role, std::string name, DesktopRect rect,
                                  std::vector<std::string> actions = {}) {
  auto e = std::make_shared<FakeElement>();
  e->info.role = std::move(role);
  e->info.name = std::move(name);
  e->info.rect = rect;
  e->info.visible = true;
  e->info.showing = true;
  e->info.enabled = true;
  e->info.actions = std::move(actions);
  return e;
}

class FakeBackend : public AccessibilityBackend {
 public:
  bool available = true;
  std::shared_ptr<FakeElement> window;
  std::vector<AccessibleWindowControl> controls;
  std::function<void()> onDescribe;

  bool isAvailable() override { return available; }
  std::optional<AccessibleWindow> focusedWindow() override {
    if (!window) return std::nullopt;
    return AccessibleWindow{window, window->info.name, window->info.rect, "demo", 42};
  }
  std::vector<AccessibleWindowControl> windowControls(const AccessibleElementRef&) override {
    return controls;
  }
  std::vector<AccessibleElementRef> children(const AccessibleElementRef& e) override {
    auto& kids = fake(e).kids;
    return {kids.begin(), kids.end()};
  }
  AccessibleElementInfo describe(const AccessibleElementRef& e) override {
    if (onDescribe) onDescribe();
    return fake(e).info;
  }
  bool focus(const AccessibleElementRef& e) override {
    ++fake(e).focusCalls;
    return fake(e).focusable;
  }
  std::int32_t performAction(const AccessibleElementRef& e, const std::string& action) override {
    fake(e).performed.push_back(action);
    return fake(e).actionResult;
  }
  static FakeElement& fake(const AccessibleElementRef& e) { return static_cast<FakeElement&>(*e); }
};

std::string many(const std::string& text, int times) {
  std::string out;
  while (times-- > 0) out += text;
  return out;
}

struct SceneFixture : ::testing::Test {
  std::chrono::steady_clock::time_point now{};
  std::shared_ptr<FakeBackend> backend = std::make_shared<FakeBackend>();
  AccessibilitySceneSource source{backend, [this] { return now; }};
  const DesktopRect display{100, -50, 1280, 720};

  std::shared_ptr<FakeElement> button, field, pickOnly, label, scrolledAway, rows;

  void SetUp() override {
    backend->window = node("frame", "Demo", {100, -50, 1000, 1000});
    auto panel = node("panel", "", {100, -50, 400, 400});
    button = node("push button", "OK", {200, 50, 100, 100}, {"click", "press", "release"});
    field = node("text", "", {200, 200, 300, 30});
    field->info.value = "hello";
    field->focusable = true;
    pickOnly = node("list item", "Row", {200, 300, 50, 20}, {"Select"});
    label = node("label", many("ж😀", 300), {200, 400, 10, 10});
    auto hidden = node("push button", "Hidden", {0, 0, 10, 10}, {"click"});
    hidden->info.visible = false;
    hidden->info.showing = false;
    hidden->kids.push_back(node("push button", "Inside hidden", {0, 0, 10, 10}));
    auto zeroSized = node("push button", "Zero", {0, 0, 0, 10}, {"click"});
    // Not showing inside the window: another tab's page.
    auto covered = node("push button", "Covered", {300, 300, 10, 10}, {"click"});
    covered->info.showing = false;
    // Not showing outside the window: scrolled away, still there.
    scrolledAway = node("push button", "Scrolled", {200, 2000, 10, 10}, {"click"});
    scrolledAway->info.showing = false;
    // A wrapper with the same role, label and place as its child, which acts.
    auto wrapper = node("scroll pane", "Rows", {200, 500, 100, 100});
    rows = node("viewport", "Rows", {200, 500, 100, 100}, {"click"});
    wrapper->kids.push_back(rows);
    // A control's own parts are not listed.
    button->kids.push_back(node("label", "OK inside", {210, 60, 20, 10}));
    panel->kids = {button, field, pickOnly, hidden, zeroSized, covered, scrolledAway, wrapper};
    backend->window->kids = {panel, label};
  }

  const SceneElement* find(const AccessibilityScene& scene, const std::string& text) {
    auto at = std::find_if(scene.elements.begin(), scene.elements.end(),
                           [&](const SceneElement& e) { return e.text == text; });
    return at == scene.elements.end() ? nullptr : &*at;
  }
};

TEST_F(SceneFixture, ListsVisibleInterestingElementsWithRolesAndDisplayRelativeRects) {
  auto scene = source.scan(7, VideoMapping::unscaled(display), 0.3);
  ASSERT_TRUE(scene);
  EXPECT_EQ(scene->sequence, 7);
  std::vector<std::string> texts;
  for (const auto& e : scene->elements) texts.push_back(e.text.substr(0, 6));
  // Most important first: dialog, button, text field, the picked row, the label.
  EXPECT_EQ(texts,
            (std::vector<std::string>{"Demo", "OK", "Scroll", "hello", "Rows", "Row", "ж😀"}));

  const SceneElement* ok = find(*scene, "OK");
  ASSERT_TRUE(ok);
  EXPECT_EQ(ok->role, "button");
  EXPECT_EQ(ok->rect, (DesktopRect{100, 100, 100, 100}));
  EXPECT_DOUBLE_EQ(ok->importance, 0.9);
  EXPECT_EQ(ok->id, scene::elementIdentifier("button", "OK", ok->rect));
  EXPECT_EQ(find(*scene, "hello")->role, "textfield");
  EXPECT_EQ(find(*scene, "Row")->role, "unknown");
  EXPECT_DOUBLE_EQ(find(*scene, "Row")->importance, 0.45 + std::sqrt(50.0 * 20.0) / 2000.0);
  EXPECT_EQ(scene->elements.back().text, many("ж😀", 256));  // 512 characters
  EXPECT_EQ(scene->elements.back().role, "text");
  EXPECT_EQ(find(*source.scan(7, VideoMapping::unscaled(display), 0.3), "OK")->id, ok->id);

  EXPECT_EQ(ok->toJson()["rect"], (nlohmann::json{{"x", 100}, {"y", 100}, {"w", 100}, {"h", 100}}));
  EXPECT_EQ(scene->activeWindow.rect, (DesktopRect{0, 0, 1000, 1000}));

  // Captured at half the display's size: rectangles are in the video's pixels.
  auto half = source.scan(8, VideoMapping{display, 640, 360}, 0.3);
  ASSERT_TRUE(half);
  EXPECT_EQ(find(*half, "OK")->rect, (DesktopRect{50, 50, 50, 50}));
  EXPECT_DOUBLE_EQ(find(*half, "OK")->importance, 0.9);  // the element's own size counts
  EXPECT_EQ(half->activeWindow.rect, (DesktopRect{0, 0, 500, 500}));

  // Window controls carry their kind and a fixed label.
  backend->controls = {{node("push button", "x", {1000, -50, 20, 20}, {"click"}), "close"},
                       {node("push button", "", {980, -50, 20, 20}), "zoom"}};
  auto withControls = source.scan(9, VideoMapping::unscaled(display), 0.3);
  const SceneElement* close = find(*withControls, "Close window");
  ASSERT_TRUE(close);
  EXPECT_EQ(close->role, "windowControl");
  EXPECT_EQ(close->toJson()["state"]["windowControl"], "close");
  EXPECT_TRUE(find(*withControls, "Window control"));
  // The rest of the role table meets real widgets in the desktop scene test.
  const std::pair<const char*, const char*> roles[] = {
      {"page tab list", "tab"}, {"table", "scrollarea"}, {"Push Button", "unknown"}};
  for (auto [platform, wire] : roles) EXPECT_EQ(scene::mapRole(platform), wire) << platform;
  EXPECT_DOUBLE_EQ(scene::importance("dialog", 1000, 1000), 1.0);
  EXPECT_DOUBLE_EQ(scene::importance("text", 1e9, 1e9), 0.35);
}

TEST_F(SceneFixture, StopsWhenTheBudgetIsSpent) {
  // Each element read costs 10 ms of the fake clock: a 0.05 s budget admits
  // five reads, four of them kept. (The 200-element cap meets a real window
  // of 300 buttons in the desktop test.)
  backend->onDescribe = [this] { now += 10ms; };
  auto hurried = source.scan(2, VideoMapping::unscaled(display), 0.05);
  ASSERT_TRUE(hurried);
  EXPECT_EQ(hurried->elements.size(), 4u);

  backend->window.reset();
  EXPECT_FALSE(source.scan(3, VideoMapping::unscaled(display), 0.3));
  backend->available = false;
  EXPECT_FALSE(source.scan(4, VideoMapping::unscaled(display), 0.3));
}

TEST_F(SceneFixture, InvokePressesFocusesOrPicks) {
  auto scene = source.scan(10, VideoMapping::unscaled(display), 0.3);
  source.invoke(find(*scene, "OK")->id, 10);
  EXPECT_EQ(button->performed, (std::vector<std::string>{"click"}));

  source.invoke(find(*scene, "hello")->id, 10);
  EXPECT_EQ(field->focusCalls, 1);
  EXPECT_TRUE(field->performed.empty());

  source.invoke(find(*scene, "Row")->id, 10);
  EXPECT_EQ(pickOnly->performed, (std::vector<std::string>{"Select"}));

  // Of two alike elements, the one that acts is invoked.
  EXPECT_EQ(find(*scene, "Rows")->actions, (std::vector<std::string>{"invoke"}));
  source.invoke(find(*scene, "Rows")->id, 10);
  EXPECT_EQ(rows->performed, (std::vector<std::string>{"click"}));

  button->actionResult = 5;
  EXPECT_THROW(source.invoke(find(*scene, "OK")->id, 10), AccessibilitySceneError);
  button->actionResult = 0;

  // Stale, unknown and unreachable elements are refused.
  std::string ok = find(*scene, "OK")->id;
  auto errorOf = [&](const std::string& id, std::int64_t seq) {
    return test::outcome<AccessibilitySceneError>([&] { source.invoke(id, seq); });
  };
  EXPECT_EQ(errorOf(ok, 12), "ok");
  EXPECT_EQ(errorOf(ok, 8), "ok");
  EXPECT_EQ(errorOf(ok, 13), "staleElement");
  EXPECT_EQ(errorOf(ok, INT64_MIN), "staleElement");
  EXPECT_EQ(errorOf("el:nothing", 10), "staleElement");
  EXPECT_EQ(errorOf(find(*scene, many("ж😀", 256))->id, 10), "notInvokable");
  backend->available = false;
  EXPECT_EQ(errorOf(ok, 10), "permissionRequired");
  backend->available = true;
  now += 2999ms;
  EXPECT_EQ(errorOf(ok, 10), "ok");
  now += 1ms;
  EXPECT_EQ(errorOf(ok, 10), "staleElement");
}

}  // namespace
}  // namespace zul
