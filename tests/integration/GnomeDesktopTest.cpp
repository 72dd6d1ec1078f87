// The GNOME Wayland backend against a headless mutter with two virtual
// monitors, PipeWire and a GTK window: started once, many checks.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <nlohmann/json.hpp>
#include <set>
#include <thread>

#include "ZulAgent/orchestration/CaptureGeometry.h"
#include "ZulCore/Input/KeyboardExecutor.h"
#include "ZulCore/Input/PointerInputExecutor.h"
#include "ZulCore/Media/Nv12Surface.h"
#include "ZulCore/Scene/AccessibilitySceneSource.h"
#include "ZulCore/Trust/DevicePermission.h"
#include "ZulPlatform/linux/DesktopBackend.h"
#include "ZulPlatform/linux/accessibility/AtspiAccessibilityBackend.h"
#include "integration/TestApp.h"
#include "support/FrameLog.h"
#include "support/GnomeSession.h"

namespace zul {
namespace {

using namespace std::chrono_literals;
using test::ChildProcess;
using test::drivePointer;
using test::GnomeSession;

// The test window's background, and what full-range BT.601 makes of it.
constexpr const char* background = "#2060c0";
constexpr int expectedY = 88, expectedU = 187, expectedV = 88;

// Luma and chroma at one pixel of an NV12 frame.
std::array<int, 3> yuvAt(const CapturedFrame& frame, int x, int y) {
  auto surface = std::dynamic_pointer_cast<Nv12Surface>(frame.nativeSurface);
  if (!surface) return {-1, -1, -1};
  const Nv12PlaneView p = surface->planes();
  const std::uint8_t* uv = p.chroma + std::size_t(y / 2) * p.chromaStride + std::size_t(x / 2) * 2;
  return {p.luma[std::size_t(y) * p.lumaStride + x], uv[0], uv[1]};
}

bool near(int value, int expected) { return std::abs(value - expected) <= 6; }

TEST(GnomeDesktopTest, CapturesTypesClicksReadsTheSceneAndSwitchesMonitorsOnHeadlessMutter) {
  if (const std::string missing = GnomeSession::whyMissing(); !missing.empty()) {
    GTEST_SKIP() << missing;
  }
  // The primary monitor at scale 2: windows draw twice their own size.
  auto session =
      std::make_unique<GnomeSession>(std::vector<std::string>{"1920x1080@2", "1280x720"});
  session->bus().startAccessibility();

  // The session picks the GNOME backend by itself.
  const DesktopChoice choice = chooseDesktop(currentDesktopSessionFacts());
  ASSERT_EQ(choice.backend, "gnome") << choice.reason;
  auto backend = makeDesktopBackend(choice);

  // Two monitors side by side from mutter's display configuration.
  const auto displays = backend->availableDisplays();
  ASSERT_EQ(displays.size(), 2u);
  auto geometry = [](const DisplayDescriptor& d) {
    return std::vector<std::int64_t>{d.index, d.width, d.height, d.originX, d.originY};
  };
  EXPECT_EQ(geometry(displays[0]), (std::vector<std::int64_t>{0, 1920, 1080, 0, 0}));
  EXPECT_EQ(geometry(displays[1]), (std::vector<std::int64_t>{1, 1280, 720, 1920, 0}));
  EXPECT_EQ(displays[0].elementScale, 2.0);
  EXPECT_EQ(displays[1].elementScale, 1.0);
  EXPECT_EQ(backend->primaryDisplayID(), displays[0].displayID);
  EXPECT_NE(displays[0].displayID, displays[1].displayID);

  // Full screen on the primary monitor: a Wayland window cannot place itself.
  ChildProcess::Options options{.env = session->environment(), .unsetEnv = {"DISPLAY"}};
  options.env["GDK_BACKEND"] = "wayland";
  test::TestApp app({"--fullscreen", "--background", background}, options);

  // Frames of the primary monitor at its own size, with the window's colour.
  auto capture = backend->makeCaptureSource();
  EXPECT_EQ(capture->name(), "gnome");
  test::FrameLog log;
  capture->setFrameReady(std::ref(log));
  std::atomic<int> failures{0};
  std::string failure;
  capture->setCaptureFailed([&](const CaptureError& error) {
    failure = error.what();
    ++failures;
  });
  const CaptureSize size = captureSizeFor(displays[0]);
  capture->start({.displayIndex = 0,
                  .width = size.width,
                  .height = size.height,
                  .framesPerSecond = 30,
                  .idleFramesPerSecond = 2});
  EXPECT_EQ(capture->resolvedDisplayID(), displays[0].displayID);
  EXPECT_THROW(capture->start({}), CaptureError);  // already running
  auto painted = log.waitFor([](const CapturedFrame& frame) {
    const auto yuv = yuvAt(frame, 1800, 1000);
    return near(yuv[0], expectedY) && near(yuv[1], expectedU) && near(yuv[2], expectedV);
  });
  ASSERT_TRUE(painted) << "no frame shows the window's colour";
  EXPECT_EQ(painted->width, 1920);
  EXPECT_EQ(painted->height, 1080);
  {
    // A still screen still gets its idle frames, numbered without gaps.
    const std::int64_t seen = painted->sequence;
    auto later = log.waitFor([&](const CapturedFrame& f) { return f.sequence >= seen + 2; });
    ASSERT_TRUE(later);
    const auto frames = log.frames();
    for (std::size_t i = 1; i < frames.size(); ++i) {
      EXPECT_EQ(frames[i].sequence, frames[i - 1].sequence + 1);
    }
  }

  // The scene lists the window's elements; a tap in the middle of the
  // button's rectangle (video pixels) presses it, though the window counts
  // in half the monitor's pixels.
  auto injector = backend->makeInputInjector();
  const VideoMapping video = videoMappingFor(displays[0]);
  const VideoMapping sceneVideo = sceneMappingFor(displays[0]);
  AccessibilitySceneSource scene(std::make_shared<AtspiAccessibilityBackend>());
  std::optional<SceneElement> button, entry;
  std::set<std::string> roles;
  for (int i = 0; i < 100 && !(button && entry); ++i) {
    if (auto found = scene.scan(1, sceneVideo, 10)) {
      for (const auto& element : found->elements) {
        roles.insert(element.role);
        if (element.text == "Press me") button = element;
        if (element.role == "textfield") entry = element;
      }
    }
    if (!button || !entry) std::this_thread::sleep_for(100ms);
  }
  ASSERT_TRUE(button && entry) << "the scene lacks the button or the entry";
  EXPECT_TRUE(roles.count("checkbox"));
  PointerInputExecutor pointer(video, injector);
  const auto tap = [&](const SceneElement& element) {
    const double x = element.rect.x + element.rect.width / 2;
    const double y = element.rect.y + element.rect.height / 2;
    drivePointer(pointer, nlohmann::json{{"phase", "down"}, {"x", x}, {"y", y}});
    drivePointer(pointer, nlohmann::json{{"phase", "up"}, {"x", x}, {"y", y}});
  };
  tap(*button);
  EXPECT_TRUE(app.waitFor("clicked Press me")) << app.last;

  // Text of any script reaches the entry (the first key included); a
  // combination arrives with its modifier. The click took the focus: a tap
  // gives it back to the entry.
  KeyboardExecutor keyboard(injector);
  tap(*entry);
  EXPECT_TRUE(app.waitFor("focus Name field")) << app.last;
  const std::string text = "Hi, Привет ёж 7!";
  keyboard.sendText(text);
  EXPECT_TRUE(
      app.waitFor("text \"Hi, \\u041f\\u0440\\u0438\\u0432\\u0435\\u0442 "
                  "\\u0451\\u0436 7!\""))
      << app.last;
  keyboard.sendHotkey("Ctrl+A");
  EXPECT_TRUE(app.waitFor("key a 4")) << app.last;
  injector->movePointer(
      {(app.pad.x + app.pad.width / 2.0) * 2, (app.pad.y + app.pad.height / 2.0) * 2});
  injector->scroll(0, 1);
  EXPECT_TRUE(app.waitFor("scroll down")) << app.last;
  injector->setKey(keysym::shiftL, true);
  injector->releaseAll();

  // The other monitor: capture restarts there at its own size.
  capture->stop();
  const CaptureSize side = captureSizeFor(displays[1]);
  log.clear();
  capture->start(
      {.displayIndex = 1, .width = side.width, .height = side.height, .framesPerSecond = 30});
  EXPECT_EQ(capture->resolvedDisplayID(), displays[1].displayID);
  auto sideFrame = log.waitFor([](const CapturedFrame&) { return true; });
  ASSERT_TRUE(sideFrame);
  EXPECT_EQ(sideFrame->width, 1280);
  EXPECT_EQ(sideFrame->height, 720);
  EXPECT_FALSE(near(yuvAt(*sideFrame, 640, 360)[1], expectedU));  // not the window

  // The watched monitor goes away (switched off in mutter's configuration):
  // the owner hears the new list and capture ends without a failure.
  std::mutex changedMutex;
  std::condition_variable changedSeen;
  std::optional<std::vector<DisplayDescriptor>> changed;
  capture->setDisplaysChanged([&](const std::vector<DisplayDescriptor>& list) {
    std::lock_guard lock(changedMutex);
    changed = list;
    changedSeen.notify_all();
  });
  ASSERT_EQ(std::system("/usr/bin/python3 -c \"from gi.repository import Gio, GLib; "
                        "b = Gio.bus_get_sync(Gio.BusType.SESSION, None); "
                        "p = ('org.gnome.Mutter.DisplayConfig', '/org/gnome/Mutter/DisplayConfig', "
                        "'org.gnome.Mutter.DisplayConfig'); "
                        "s = b.call_sync(*p, 'GetCurrentState', None, None, 0, -1, None)[0]; "
                        "b.call_sync(*p, 'ApplyMonitorsConfig', GLib.Variant("
                        "'(uua(iiduba(ssa{sv}))a{sv})', (s, 1, [(0, 0, 1.0, 0, True, "
                        "[('Meta-0', '1920x1080@60.000', {})])], {})), None, 0, -1, None)\""),
            0);
  {
    std::unique_lock lock(changedMutex);
    ASSERT_TRUE(changedSeen.wait_for(lock, 20s, [&] { return changed.has_value(); }));
    ASSERT_EQ(changed->size(), 1u);
    EXPECT_EQ((*changed)[0].displayID, displays[0].displayID);
  }
  EXPECT_EQ(failures.load(), 0) << failure;
  EXPECT_EQ(backend->availableDisplays().size(), 1u);
  capture->setDisplaysChanged(nullptr);
  capture->stop();
  try {
    capture->start({.displayIndex = 1});
    ADD_FAILURE() << "a monitor that is gone was captured";
  } catch (const CaptureError& error) {
    EXPECT_EQ(error, CaptureError::displayUnavailable(1));
  }

  // The compositor going away ends the stream with captureFailed.
  capture->start({.displayIndex = 0, .framesPerSecond = 30});
  EXPECT_EQ(failures.load(), 0);
  session.reset();
  for (int i = 0; i < 100 && failures.load() == 0; ++i) std::this_thread::sleep_for(100ms);
  EXPECT_EQ(failures.load(), 1);
  EXPECT_NE(failure.find("captureFailed"), std::string::npos) << failure;
  capture->stop();
}

}  // namespace
}  // namespace zul
