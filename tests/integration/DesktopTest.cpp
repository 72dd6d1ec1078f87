// Desktop control on one shared desktop: Xvfb with two RandR monitors
// ("zul-main" 1920x1080 at 0,0 and "zul-side" 1280x1024 at 1920,176), a
// session bus, the accessibility bus and registry, and the GTK test window.
#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <stdexcept>
#include <thread>

#include "ZulAgent/orchestration/AccessibilityScenePublisher.h"
#include "ZulAgent/orchestration/CaptureGeometry.h"
#include "ZulCore/Input/KeyboardExecutor.h"
#include "ZulCore/Input/PointerInputExecutor.h"
#include "ZulCore/Scene/AccessibilitySceneSource.h"
#include "ZulPlatform/linux/accessibility/AtspiAccessibilityBackend.h"
#include "ZulPlatform/linux/x11/ScreenCaptureSource.h"
#include "ZulPlatform/linux/x11/X11Clipboard.h"
#include "ZulPlatform/linux/x11/XTestInputInjector.h"
#include "support/ChildProcess.h"
#include "support/XvfbServer.h"
// Xlib last: its macros must not reach the headers above.
#include "integration/TestDesktop.h"

namespace zul {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;
using test::ChildProcess;
using test::Desktop;
using test::drivePointer;
using test::TestApp;

const DesktopRect screen{0, 0, 1280, 720};

std::string fieldText(const std::string& line) {
  return line.rfind("text ", 0) == 0 ? json::parse(line.substr(5)).get<std::string>() : "";
}

// Every test ends with nothing held and the keyboard map as it was.
class DesktopInput : public ::testing::Test {
 protected:
  void SetUp() override {
    desktop = Desktop::get();
    if (!desktop) GTEST_SKIP() << Desktop::whyMissing();
    mapBefore = desktop->keyboardMap();
    injector = std::make_shared<XTestInputInjector>(desktop->display());
  }
  void TearDown() override {
    if (!desktop) return;
    EXPECT_EQ(desktop->pressedKeyCount(), 0) << "a key is still held";
    EXPECT_EQ(std::get<2>(desktop->pointer()), 0u) << "a button is still held";
    EXPECT_TRUE(desktop->keyboardMap() == mapBefore) << "the keyboard map changed";
  }

  Desktop* desktop = nullptr;
  std::vector<unsigned long> mapBefore;
  std::shared_ptr<XTestInputInjector> injector;
};

// The clipboard both ways with another X client (xclip), text and a
// picture, small and large enough to go in INCR pieces.
TEST_F(DesktopInput, ClipboardGoesBothWaysWithAnotherClient) {
  if (!test::haveProgram("xclip")) GTEST_SKIP() << "xclip is not installed";
  X11Clipboard clipboard(desktop->display());
  std::mutex mutex;
  std::vector<std::vector<std::string>> changes;
  clipboard.onChanged = [&](const std::vector<std::string>& types) {
    std::lock_guard lock(mutex);
    changes.push_back(types);
  };
  clipboard.start();
  const std::string xclip = "DISPLAY=" + desktop->display() + " xclip -selection clipboard ";
  const std::string picture = "\x89PNG\r\n\x1a\n" + std::string(300'000, 'p');
  const struct {
    std::string type, content;
  } cases[] = {
      {std::string(clipboardTextType), "Привет, clipboard"},
      {std::string(clipboardTextType), std::string(700'000, 'x') + "end"},
      {std::string(clipboardImageType), picture},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type + " of " + std::to_string(c.content.size()));
    const std::string file = "/tmp/zul-clip-" + std::to_string(::getpid());
    std::ofstream(file, std::ios::binary) << c.content;
    // Another client takes the clipboard: the change and its content.
    const std::string target = c.type == clipboardImageType ? "-t image/png " : "";
    ASSERT_EQ(std::system((xclip + target + "-i " + file).c_str()), 0);
    // xclip takes the clipboard in the background: read once it holds it.
    ASSERT_TRUE(test::waitUntil(
        [&] {
          try {
            return toString(clipboard.read(c.type)) == c.content;
          } catch (const ClipboardError&) {
            return false;
          }
        },
        std::chrono::seconds(10)))
        << "the other client's content was never read whole";
    // ...and was told of the change (an earlier look may answer late).
    EXPECT_TRUE(test::waitUntil(
        [&] {
          std::lock_guard lock(mutex);
          return !changes.empty() && changes.back() == std::vector<std::string>{c.type};
        },
        std::chrono::seconds(10)));
    // We take it back: the other client pastes exactly our bytes.
    clipboard.write(c.type, toBytes(c.content + "!"));
    const std::string pasted = test::commandOutput(xclip + target + "-o");
    EXPECT_EQ(pasted.size(), c.content.size() + 1);
    EXPECT_TRUE(pasted == c.content + "!");
    std::remove(file.c_str());
  }
  EXPECT_THROW(clipboard.read("text/html"), ClipboardError);
  EXPECT_THROW(clipboard.write(std::string(clipboardTextType), Bytes(maxClipboardTextBytes + 1)),
               ClipboardError);
  clipboard.stop();
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
  int presses_ = 0, failingKeyPress_;
  bool failReleases_;
};

// Buttons, drags, wheel steps, combinations and text reach a real window,
// and however a session goes, nothing it pressed stays down once it ends.
TEST_F(DesktopInput, ReachesARealWindowAndLeavesNothingPressed) {
  TestApp app;
  const int cx = app.pad.x + app.pad.width / 2, cy = app.pad.y + app.pad.height / 2;
  auto at = [&](const char* phase, int x, int y, const char* button = "left") {
    return json{{"phase", phase}, {"x", x}, {"y", y}, {"button", button}};
  };
  auto xy = [](int x, int y) { return std::to_string(x) + " " + std::to_string(y); };
  PointerInputExecutor pointer(VideoMapping::unscaled(screen), injector);
  const std::pair<json, std::string> strokes[] = {
      {at("down", cx - 50, cy), "press 1 " + xy(cx - 50, cy)},
      {at("move", cx, cy + 10), "drag " + xy(cx, cy + 10)},
      {at("up", cx, cy + 10), "release 1 " + xy(cx, cy + 10)},
      {at("down", cx, cy, "right"), "press 3 "},
      {at("up", cx, cy, "right"), "release 3 "},
      {at("down", cx, cy, "middle"), "press 2 "},
      {at("up", cx, cy, "middle"), "release 2 "},
      {json{{"x", cx}, {"y", cy}, {"dy", 2}}, "scroll down"},
      {json(), "scroll down"},  // null: one more line of the stroke before
      {json{{"dx", -1}}, "scroll left"},
      {json{{"dy", -1}, {"dx", 1}}, "scroll up"},
      {json(), "scroll right"},
  };
  for (const auto& [payload, line] : strokes) {
    if (payload.is_object()) drivePointer(pointer, payload);
    EXPECT_TRUE(app.waitFor(line)) << "waiting for " << line << ", last " << app.last;
  }

  KeyboardExecutor keyboard(injector);
  // X modifier masks: Shift 1, Control 4, Mod1 (Alt) 8, Mod4 (Super) 64.
  const std::pair<const char*, const char*> combos[] = {
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
  for (auto [combo, expected] : combos) {
    keyboard.sendHotkey(combo);
    auto line = app.waitFor([](const std::string& l) {
      return l.rfind("key ", 0) == 0 && l.find("_L ") == std::string::npos;  // not a modifier
    });
    EXPECT_EQ(line.value_or("nothing"), expected) << combo;
  }

  std::string longText;
  for (int i = 0; i < 12; ++i) longText += "Съешь же ещё этих мягких французских булок! ";
  longText += "Ελληνικά, 日本語, ½ ≠ ∞ 🎉";
  const struct {
    bool capsLock;
    std::string text;
  } texts[] = {
      {false, "Hello, world"},
      {true, "Mixed Case, ёЖ 123 !?"},
      {false, "café ñ Ü € 😀 emoji 🚀"},
      {false, R"(Symbols: "quoted" 'single' \ <>&~^{}|)"},
      {false, longText},
      // More different characters than spare keys: their keys are lent out again.
      {false,
       "АБВГДЕЁЖЗИЙКЛМНОПРСТУФХЦЧШЩЪЫЬЭЮЯ абвгдеёжзийклмнопрстуфхцчшщъыьэюя "
       "αβγδεζηθικλμνξοπρστυφχψω ÀÉÎÕÜ àéîõü ĀĒĪŌŪ"},
  };
  for (const auto& c : texts) {
    keyboard.sendHotkey("Ctrl+A");  // typing replaces the selection
    desktop->lockCaps(c.capsLock);
    keyboard.sendText(c.text);
    EXPECT_TRUE(app.waitFor([&](const std::string& l) { return fieldText(l) == c.text; }, 30s))
        << c.text << "\nthe field has " << fieldText(app.last);
  }
  desktop->lockCaps(false);

  constexpr unsigned button2Held = 1u << 9, button3Held = 1u << 10;  // X's masks
  const struct {
    const char* name;
    int failingKeyPress;  // 1-based; 0: none
    bool failReleases;
    std::vector<json> strokes;
    const char* combo;
    unsigned buttonsHeld;  // before the session ends
    bool keysHeld;
  } sessions[] = {
      // clang-format off
      {"down, down", 0, false, {at("down", cx, cy), at("down", cx, cy, "right")}, nullptr,
       button3Held, false},
      {"down, drag, then the end", 0, false,
       {at("down", cx, cy, "middle"), at("move", cx + 5, cy, "middle")}, nullptr, button2Held, false},
      {"down left, up right", 0, false, {at("down", cx, cy), at("up", cx, cy, "right")}, nullptr, 0,
       false},
      {"a combination whose second key fails", 2, false, {}, "Ctrl+Shift+K", 0, false},
      {"a combination whose releases fail", 0, true, {}, "Ctrl+Alt+K", 0, true},
      // clang-format on
  };
  for (const auto& c : sessions) {
    SCOPED_TRACE(c.name);
    auto flaky = std::make_shared<FlakyInjector>(injector, c.failingKeyPress, c.failReleases);
    PointerInputExecutor pointer(VideoMapping::unscaled(screen), flaky);
    KeyboardExecutor keyboard(flaky);
    for (const auto& payload : c.strokes) drivePointer(pointer, payload);
    try {
      if (c.combo) keyboard.sendHotkey(c.combo);
    } catch (const std::runtime_error&) {
      // the failing key's; what matters is what stays down
    }
    EXPECT_EQ(std::get<2>(desktop->pointer()), c.buttonsHeld);
    EXPECT_EQ(desktop->pressedKeyCount() > 0, c.keysHeld);
    pointer.releaseAll();  // what every end of a session does
    EXPECT_EQ(std::get<2>(desktop->pointer()), 0u);
    EXPECT_EQ(desktop->pressedKeyCount(), 0);
  }
}

const SceneElement* find(const AccessibilityScene& scene, const std::string& text) {
  for (const auto& e : scene.elements) {
    if (e.text == text) return &e;
  }
  return nullptr;
}

// The application registers with the accessibility bus a little after its
// window shows: scan until the scene names `label`.
std::optional<AccessibilityScene> scanUntil(AccessibilitySceneSource& source,
                                            const std::string& label, std::int64_t sequence,
                                            double budget = 10) {
  for (int i = 0; i < 100; ++i) {
    auto scene = source.scan(sequence, VideoMapping::unscaled(screen), budget);
    if (scene && find(*scene, label)) return scene;
    std::this_thread::sleep_for(100ms);
  }
  return std::nullopt;
}

TEST_F(DesktopInput, SceneListsInvokesAndStopsAtTwoHundredElements) {
  auto backend = std::make_shared<AtspiAccessibilityBackend>();
  AccessibilitySceneSource source(backend);
  {
    TestApp app;
    ASSERT_TRUE(backend->isAvailable());
    auto scene = scanUntil(source, "Press me", 1);
    ASSERT_TRUE(scene) << "the test window never showed up in the accessibility tree";
    EXPECT_EQ(scene->activeWindow.title, "Zul Test App");
    EXPECT_EQ(scene->activeWindow.id.rfind("axwin:", 0), 0u);
    EXPECT_EQ(scene->elements.front().role, "dialog");  // most important first
    EXPECT_EQ(find(*scene, "Zul Test App")->rect,
              (DesktopRect{double(app.window.x), double(app.window.y), double(app.window.width),
                           double(app.window.height)}));
    const std::pair<const char*, const char*> expected[] = {
        {"Press me", "button"},
        {"Remember", "checkbox"},
        {"Name field", "textfield"},
        {"Your name:", "text"},
    };
    for (auto [label, role] : expected) {
      const SceneElement* e = find(*scene, label);
      ASSERT_TRUE(e) << label << " missing from " << scene->elements.size() << " elements";
      EXPECT_EQ(e->role, role) << label;
      EXPECT_TRUE(e->enabled) << label;
      EXPECT_GE(e->rect.x, app.window.x) << label;
      EXPECT_GE(e->rect.y, app.window.y) << label;
      EXPECT_LE(e->rect.x + e->rect.width, app.window.x + app.window.width) << label;
      EXPECT_LE(e->rect.y + e->rect.height, app.window.y + app.window.height) << label;
      EXPECT_GT(e->rect.width, 0) << label;
    }

    auto invoke = [&](const std::string& id, std::int64_t sequence) -> std::string {
      try {
        source.invoke(id, sequence);
        return "ok";
      } catch (const AccessibilitySceneError& e) {
        return e.text();
      }
    };
    EXPECT_EQ(invoke(find(*scene, "Remember")->id, 1), "ok");
    EXPECT_TRUE(app.waitFor("toggled Remember 1"));
    EXPECT_EQ(invoke(find(*scene, "Press me")->id, 1), "ok");
    EXPECT_TRUE(app.waitFor("clicked Press me"));
    // A click on the button takes the focus; invoking the field gives it back.
    PointerInputExecutor pointer(VideoMapping::unscaled(screen), injector);
    const DesktopRect button = find(*scene, "Press me")->rect;
    for (const char* phase : {"down", "up"}) {
      drivePointer(pointer, {{"phase", phase}, {"x", button.x + 5}, {"y", button.y + 5}});
    }
    ASSERT_TRUE(app.waitFor("clicked Press me"));
    EXPECT_EQ(invoke(find(*scene, "Name field")->id, 3), "ok");
    EXPECT_TRUE(app.waitFor("focus Name field"));
    EXPECT_EQ(invoke(find(*scene, "Your name:")->id, 1), "notInvokable");
    EXPECT_EQ(invoke(find(*scene, "Press me")->id, 4), "staleElement");  // 3 scenes on
    EXPECT_EQ(invoke("el:0000", 1), "staleElement");
  }
  TestApp large({"--widgets", "300"});
  auto scene = scanUntil(source, "Press me", 10, 60);
  ASSERT_TRUE(scene);
  EXPECT_EQ(scene->elements.size(), 200u);
  std::set<std::string> ids;
  for (const auto& e : scene->elements) ids.insert(e.id);
  EXPECT_EQ(ids.size(), scene->elements.size());
}

// What the phone does: it reads the scene the agent publishes for the
// captured monitor and taps the middle of an element's rectangle, in the
// video's pixels at the agent's capture size. Every clickable element of the
// window gets the click, on a 1920x1080 monitor and on one beside it.
TEST_F(DesktopInput, TapsAtSceneRectanglesReachTheirElementsOnEveryMonitor) {
  auto source =
      std::make_shared<AccessibilitySceneSource>(std::make_shared<AtspiAccessibilityBackend>());
  // What a tap on each kind of element makes the app say.
  const std::map<std::string, std::string> answers = {
      {"button", "clicked "}, {"checkbox", "toggled "}, {"textfield", "focus "}};
  const auto displays = ScreenCaptureSource::availableDisplays(desktop->display());
  ASSERT_EQ(displays.size(), 2u);
  for (const auto& display : displays) {
    SCOPED_TRACE("monitor " + std::to_string(display.index));
    const VideoMapping video = videoMappingFor(display);
    TestApp app(
        {"--at", std::to_string(display.originX + 150), std::to_string(display.originY + 100)});
    std::mutex mutex;
    json scene;
    AccessibilityScenePublisher publisher({
        .source = [&] { return source; },
        .activeSessionId = [] { return std::optional<std::string>("s-1"); },
        .sendScene =
            [&](const std::string& text) {
              std::lock_guard lock(mutex);
              scene = json::parse(text);
            },
        .print = [](std::string_view) {},
        .nowMilliseconds = [] { return std::int64_t(0); },
        .hostName = "test",
    });
    publisher.setDisplay(video, display.index);
    auto complete = [&] {
      std::set<std::string> roles;
      for (const auto& e : scene["elements"]) {
        if (answers.count(e["role"])) roles.insert(e["role"].get<std::string>());
      }
      return roles.size() == answers.size();
    };
    for (int i = 0; i < 100; ++i) {
      publisher.publish();
      publisher.waitUntilIdle();
      std::lock_guard lock(mutex);
      if (complete()) break;
      std::this_thread::sleep_for(100ms);
    }
    ASSERT_TRUE(complete()) << scene.dump();
    EXPECT_EQ(scene["screen"]["w"], captureSizeFor(display).width);
    EXPECT_EQ(scene["screen"]["h"], captureSizeFor(display).height);
    EXPECT_EQ(scene["screen"]["originX"], display.originX);

    PointerInputExecutor pointer(video, injector);
    for (const auto& element : scene["elements"]) {
      auto answer = answers.find(element["role"]);
      if (answer == answers.end()) continue;
      const auto& r = element["rect"];
      const double x = r["x"].get<double>() + r["w"].get<double>() / 2;
      const double y = r["y"].get<double>() + r["h"].get<double>() / 2;
      drivePointer(pointer, {{"phase", "down"}, {"x", x}, {"y", y}});
      drivePointer(pointer, {{"phase", "up"}, {"x", x}, {"y", y}});
      EXPECT_TRUE(app.waitFor(answer->second + element["text"].get<std::string>()))
          << "tap at " << x << "," << y << " on " << element.dump();
    }
  }
}

TEST(DesktopWithoutBus, AnUnreachableBusMeansPermissionRequired) {
  if (!test::haveProgram("Xvfb")) GTEST_SKIP() << "Xvfb is not installed";
  // A display no accessibility bus announced itself on, and a session bus
  // address where nothing listens.
  test::XvfbServer xvfb;
  ChildProcess probe({ZUL_ATSPI_PROBE_PATH},
                     {.env = {{"DISPLAY", xvfb.display()},
                              {"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/zul-no-bus"}},
                      .unsetEnv = {"AT_SPI_BUS_ADDRESS"},
                      .captureStdout = true});
  EXPECT_EQ(probe.readStdoutLine(60s).value_or("no answer"),
            "available=0 scan=none invoke=permissionRequired");
}

}  // namespace
}  // namespace zul
