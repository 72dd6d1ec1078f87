#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "ZulAgent/orchestration/AccessibilityScenePublisher.h"
#include "ZulAgent/orchestration/CaptureGeometry.h"
#include "ZulCore/Input/PointerInputExecutor.h"
#include "ZulCore/Scene/AccessibilitySceneSource.h"
#include "ZulPlatform/linux/accessibility/AtspiAccessibilityBackend.h"
#include "ZulPlatform/linux/x11/ScreenCaptureSource.h"
#include "ZulPlatform/linux/x11/XTestInputInjector.h"
#include "integration/DesktopSession.h"

namespace zul {
namespace {

using test::DesktopSession;
using test::TestApp;

const DesktopRect screen{0, 0, 1280, 720};

class DesktopScene : public ::testing::Test {
 protected:
  void SetUp() override {
    desktop = DesktopSession::get();
    if (!desktop) GTEST_SKIP() << DesktopSession::whyMissing();
    backend = std::make_shared<AtspiAccessibilityBackend>();
    source = std::make_shared<AccessibilitySceneSource>(backend);
  }

  // The application registers with the accessibility bus a little after its
  // window shows: scan until the scene names `label`.
  std::optional<AccessibilityScene> scanUntil(const std::string& label, std::int64_t sequence,
                                              double budget = 10) {
    for (int i = 0; i < 100; ++i) {
      auto scene = source->scan(sequence, VideoMapping::unscaled(screen), budget);
      if (scene && find(*scene, label)) return scene;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
    }
    return std::nullopt;
  }
  static const SceneElement* find(const AccessibilityScene& scene, const std::string& text) {
    for (const auto& e : scene.elements) {
      if (e.text == text) return &e;
    }
    return nullptr;
  }
  static std::string invokeResult(AccessibilitySceneSource& source, const std::string& id,
                                  std::int64_t seq) {
    try {
      source.invoke(id, seq);
      return "ok";
    } catch (const AccessibilitySceneError& e) {
      return e.text();
    }
  }

  DesktopSession* desktop = nullptr;
  std::shared_ptr<AtspiAccessibilityBackend> backend;
  std::shared_ptr<AccessibilitySceneSource> source;
};

TEST_F(DesktopScene, ListsWidgetsWithRolesLabelsAndPointerRects) {
  TestApp app;
  ASSERT_TRUE(backend->isAvailable());
  auto scene = scanUntil("Press me", 1);
  ASSERT_TRUE(scene) << "the test window never showed up in the accessibility tree";

  EXPECT_EQ(scene->activeWindow.title, "Zul Test App");
  EXPECT_EQ(scene->activeWindow.id.rfind("axwin:", 0), 0u);
  const std::pair<const char*, const char*> expected[] = {
      {"Zul Test App", "dialog"},  {"Press me", "button"}, {"Remember", "checkbox"},
      {"Name field", "textfield"}, {"Your name:", "text"},
  };
  for (auto [label, role] : expected) {
    const SceneElement* e = find(*scene, label);
    ASSERT_TRUE(e) << label << " missing from " << scene->elements.size() << " elements";
    EXPECT_EQ(e->role, role) << label;
    EXPECT_TRUE(e->enabled) << label;
    // Inside the window, which is where the app says it is.
    EXPECT_GE(e->rect.x, app.window.x) << label;
    EXPECT_GE(e->rect.y, app.window.y) << label;
    EXPECT_LE(e->rect.x + e->rect.width, app.window.x + app.window.width) << label;
    EXPECT_LE(e->rect.y + e->rect.height, app.window.y + app.window.height) << label;
    EXPECT_GT(e->rect.width, 0) << label;
  }
  const SceneElement* window = find(*scene, "Zul Test App");
  EXPECT_EQ(
      window->rect,
      (DesktopRect{static_cast<double>(app.window.x), static_cast<double>(app.window.y),
                   static_cast<double>(app.window.width), static_cast<double>(app.window.height)}));
  EXPECT_EQ(scene->elements.front().role, "dialog");  // most important first
}

// What the phone does: it reads the scene the agent publishes for the
// captured monitor and taps the middle of an element's rectangle, in the
// video's pixels at the agent's capture size. Every clickable element of the
// window gets the click, on a 1920x1080 monitor and on one beside it.
TEST_F(DesktopScene, TapsAtSceneRectanglesReachTheirElementsOnEveryMonitor) {
  auto injector = std::make_shared<XTestInputInjector>(desktop->display());
  const PermissionGate gate{{DevicePermission::control}};
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
    nlohmann::json scene;
    AccessibilityScenePublisher publisher({
        .source = [this] { return source; },
        .activeSessionId = [] { return std::optional<std::string>("s-1"); },
        .sendScene =
            [&](const std::string& text) {
              std::lock_guard lock(mutex);
              scene = nlohmann::json::parse(text);
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
    // The app registers with the accessibility bus a little after it shows.
    for (int i = 0; i < 100; ++i) {
      publisher.publish();
      publisher.waitUntilIdle();
      std::lock_guard lock(mutex);
      if (complete()) break;
      std::this_thread::sleep_for(std::chrono::milliseconds(100));
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
      pointer.handle({{"phase", "down"}, {"x", x}, {"y", y}}, gate);
      pointer.handle({{"phase", "up"}, {"x", x}, {"y", y}}, gate);
      EXPECT_TRUE(app.waitForPrefix(answer->second + element["text"].get<std::string>()))
          << "tap at " << x << "," << y << " on " << element.dump();
    }
  }
}

TEST_F(DesktopScene, InvokePressesTogglesAndFocuses) {
  TestApp app;
  auto scene = scanUntil("Press me", 5);
  ASSERT_TRUE(scene);
  source->invoke(find(*scene, "Remember")->id, 5);
  EXPECT_TRUE(app.waitForPrefix("toggled Remember 1"));
  source->invoke(find(*scene, "Press me")->id, 6);
  EXPECT_TRUE(app.waitForPrefix("clicked Press me"));

  // Move the focus away with the button, then invoking the field focuses it.
  auto injector = std::make_shared<XTestInputInjector>(desktop->display());
  PointerInputExecutor pointer(VideoMapping::unscaled(screen), injector);
  const SceneElement* button = find(*scene, "Press me");
  nlohmann::json at = {{"x", button->rect.x + 5}, {"y", button->rect.y + 5}};
  const PermissionGate gate{{DevicePermission::control}};
  pointer.handle({{"phase", "down"}, {"x", at["x"]}, {"y", at["y"]}}, gate);
  pointer.handle({{"phase", "up"}, {"x", at["x"]}, {"y", at["y"]}}, gate);
  ASSERT_TRUE(app.waitForPrefix("clicked Press me"));
  app.seen.clear();
  EXPECT_EQ(invokeResult(*source, find(*scene, "Name field")->id, 4), "ok");
  EXPECT_TRUE(app.waitForPrefix("focus Name field"));

  EXPECT_EQ(invokeResult(*source, find(*scene, "Your name:")->id, 5), "notInvokable");
  EXPECT_EQ(invokeResult(*source, find(*scene, "Press me")->id, 8), "staleElement");
  EXPECT_EQ(invokeResult(*source, "el:0000", 5), "staleElement");
}

TEST_F(DesktopScene, ALargeWindowYieldsExactlyTwoHundredElements) {
  TestApp app({"--widgets", "300"});
  auto scene = scanUntil("Press me", 1, 60);
  ASSERT_TRUE(scene);
  EXPECT_EQ(scene->elements.size(), 200u);
  std::set<std::string> ids;
  for (const auto& e : scene->elements) ids.insert(e.id);
  EXPECT_EQ(ids.size(), scene->elements.size());
}

TEST(DesktopSceneWithoutBus, AnUnreachableBusMeansPermissionRequired) {
  if (!test::haveProgram("Xvfb")) GTEST_SKIP() << "Xvfb is not installed";
  // A display that no accessibility bus announced itself on, and a session
  // bus address where nothing listens.
  test::XvfbServer xvfb;
  test::ChildProcess::Options options;
  options.captureStdout = true;
  options.env = {{"DISPLAY", xvfb.display()},
                 {"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/zul-no-bus"}};
  options.unsetEnv = {"AT_SPI_BUS_ADDRESS"};
  test::ChildProcess probe({ZUL_ATSPI_PROBE_PATH}, options);
  EXPECT_EQ(probe.readStdoutLine(std::chrono::seconds(60)).value_or("no answer"),
            "available=0 scan=none invoke=permissionRequired");
}

}  // namespace
}  // namespace zul
