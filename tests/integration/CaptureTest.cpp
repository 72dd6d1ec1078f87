// X11 capture, the software encoder and `zul-agent --real`, each on a
// private X server the test draws on.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "ZulAgent/orchestration/CaptureGeometry.h"
#include "ZulAgent/orchestration/DisplaySwitcher.h"
#include "ZulPlatform/linux/capture/DamageRects.h"
#include "ZulPlatform/linux/capture/Nv12FrameSurface.h"
#include "ZulPlatform/linux/x11/ScreenCaptureSource.h"
#include "ZulPlatform/linux/x11/X11Clipboard.h"
#include "support/ChildProcess.h"
#include "support/FrameLog.h"
#include "support/ScreenPainter.h"
#include "support/XvfbServer.h"
// Xlib last: its macros must not reach the headers above.
#include <X11/Xlib.h>

namespace zul {
namespace {

using namespace std::chrono_literals;
using test::FrameLog;
using test::ScreenPainter;
using test::XvfbServer;

constexpr unsigned kRed = 0xff0000, kGreen = 0x00ff00, kBlue = 0x0000ff, kWhite = 0xffffff;

// Full-range BT.601 luma and chroma of an RGB colour against a pixel of a frame.
void expectColour(const CapturedFrame& frame, int x, int y, unsigned rgb) {
  auto* surface = dynamic_cast<Nv12FrameSurface*>(frame.nativeSurface.get());
  ASSERT_NE(surface, nullptr);
  const double r = (rgb >> 16) & 0xff, g = (rgb >> 8) & 0xff, b = rgb & 0xff;
  const std::uint8_t* uv = surface->chroma() + (y / 2) * surface->chromaStride() + (x / 2) * 2;
  EXPECT_NEAR(surface->luma()[y * surface->lumaStride() + x], 0.299 * r + 0.587 * g + 0.114 * b, 4)
      << "at " << x << "," << y;
  EXPECT_NEAR(uv[0], std::clamp(128 - 0.168736 * r - 0.331264 * g + 0.5 * b, 0.0, 255.0), 4);
  EXPECT_NEAR(uv[1], std::clamp(128 + 0.5 * r - 0.418688 * g - 0.081312 * b, 0.0, 255.0), 4);
}

CaptureOptions options(std::int64_t index, std::int64_t width, std::int64_t height,
                       std::int64_t fps = 30, std::int64_t idleFps = 30) {
  return {.displayIndex = index,
          .width = width,
          .height = height,
          .framesPerSecond = fps,
          .idleFramesPerSecond = idleFps};
}

bool skipWithoutXvfb() { return !test::haveProgram("Xvfb") || !test::haveProgram("xrandr"); }

// Two side-by-side 960x1080 monitors on one 1920x1080 screen: the pattern
// each shows at every capture size, and indexes that name no monitor.
TEST(CaptureTest, CapturesEachMonitorsPatternAtTheRequestedSize) {
  const std::string missing = ":" + std::to_string(4000 + ::getpid() % 1000);
  EXPECT_THROW(ScreenCaptureSource::availableDisplays(missing), CaptureError);
  try {
    ScreenCaptureSource(missing).start(options(0, 0, 0));
    ADD_FAILURE() << "started on " << missing;
  } catch (const CaptureError& error) {
    EXPECT_EQ(error.kind(), CaptureError::Case::platformUnsupported) << error.what();
  }
  if (skipWithoutXvfb()) GTEST_SKIP() << "Xvfb or xrandr is not installed";
  XvfbServer server(1920, 1080);
  ScreenPainter painter(server.display());
  ASSERT_EQ(server.run("xrandr --setmonitor zul-left 960/254x1080/286+0+0 screen >/dev/null"), 0);
  ASSERT_EQ(server.run("xrandr --setmonitor zul-right 960/254x1080/286+960+0 none >/dev/null"), 0);
  const auto displays = ScreenCaptureSource::availableDisplays(server.display());
  EXPECT_EQ(displays,
            (std::vector<DisplayDescriptor>{{0, painter.atom("zul-left"), 960, 1080, 0, 0},
                                            {1, painter.atom("zul-right"), 960, 1080, 960, 0}}));

  ScreenCaptureSource source(server.display());
  for (std::int64_t index : {std::int64_t(2), std::int64_t(-1), std::int64_t(1000), INT64_MIN}) {
    try {
      source.start(options(index, 0, 0));
      source.stop();
      ADD_FAILURE() << "index " << index << " accepted";
    } catch (const CaptureError& error) {
      EXPECT_EQ(error, CaptureError::displayUnavailable(index)) << error.what();
    }
  }
  EXPECT_FALSE(source.resolvedDisplayID());

  // Quadrants of four colours, in another order on each monitor.
  const unsigned quadrants[2][4] = {{kRed, kGreen, kBlue, kWhite}, {kBlue, kWhite, kGreen, kRed}};
  for (int q = 0; q < 8; ++q) {
    painter.fill(q / 4 * 960 + q % 2 * 480, q % 4 / 2 * 540, 480, 540, quadrants[q / 4][q % 4]);
  }
  const struct {
    const char* name;
    int monitor, requestedWidth, requestedHeight;  // 0: the monitor's own
    int width, height;
  } cases[] = {
      {"own size", 0, 0, 0, 960, 1080},
      {"scaled down", 0, 480, 270, 480, 270},
      {"scaled up", 0, 1280, 1440, 1280, 1440},
      {"second monitor", 1, 320, 360, 320, 360},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FrameLog sink;
    source.setFrameReady(std::ref(sink));
    source.start(options(c.monitor, c.requestedWidth, c.requestedHeight));
    ASSERT_TRUE(sink.waitFor(3));  // past the damage the server reports at the start
    EXPECT_EQ(source.resolvedDisplayID(), displays[c.monitor].displayID);
    // A small change in the first quadrant is converted alone: it shows, and
    // the rest of the picture is the previous one's.
    const int left = int(displays[c.monitor].originX) + 200;
    const unsigned spot = quadrants[c.monitor][0] == kWhite ? kBlue : kWhite;
    painter.fill(left, 200, 40, 40, spot);
    const auto moved = sink.waitFor([&](const CapturedFrame& f) {
      auto* s = dynamic_cast<Nv12FrameSurface*>(f.nativeSurface.get());
      const int x = 220 * c.width / 960, y = 220 * c.height / 1080;
      return s && std::abs(s->luma()[y * s->lumaStride() + x] - (spot == kWhite ? 255 : 29)) <= 4;
    });
    painter.fill(left, 200, 40, 40, quadrants[c.monitor][0]);
    source.stop();
    ASSERT_TRUE(moved) << "the change never showed";
    // (The library reports a monitor away from the origin as changed whole.)
    if (c.monitor == 0) {
      EXPECT_LT(areaOf(moved->dirtyRegions), std::int64_t(c.width) * c.height / 4);
    }
    for (int q = 1; q < 4; ++q) {
      expectColour(*moved, (q % 2 * 2 + 1) * c.width / 4, (q / 2 * 2 + 1) * c.height / 4,
                   quadrants[c.monitor][q]);
    }
    const CapturedFrame frame = sink.frames().front();
    EXPECT_EQ(frame.width, c.width);
    EXPECT_EQ(frame.height, c.height);
    EXPECT_EQ(frame.pixelFormat, PixelFormat::nv12);
    EXPECT_EQ(frame.displayIndex, c.monitor);
    EXPECT_EQ(frame.dataSize(), 0u);  // the pixels travel in the surface only
    EXPECT_EQ(frame.dirtyRegions, (std::vector<RectPx>{{0, 0, c.width, c.height}}));
    auto* surface = dynamic_cast<Nv12FrameSurface*>(frame.nativeSurface.get());
    ASSERT_NE(surface, nullptr);
    ASSERT_EQ(surface->width(), c.width);
    ASSERT_EQ(surface->height(), c.height);
    for (int q = 0; q < 4; ++q) {
      expectColour(frame, (q % 2 * 2 + 1) * c.width / 4, (q / 2 * 2 + 1) * c.height / 4,
                   quadrants[c.monitor][q]);
    }
  }
}

// One frame in the consumer's hands at a time, numbered without gaps across
// restarts; one source runs once; a still screen costs one conversion and
// its idle frames, a change is seen.
TEST(CaptureTest, FollowsTheRulesOfDelivery) {
  if (skipWithoutXvfb()) GTEST_SKIP() << "Xvfb or xrandr is not installed";
  XvfbServer server(640, 480);
  ScreenPainter painter(server.display());
  painter.fill(0, 0, 640, 480, kGreen);
  ScreenCaptureSource source(server.display());
  source.stop();  // stopping a stopped source does nothing
  std::atomic<int> inHands{0}, mostInHands{0};
  FrameLog slow;
  source.setFrameReady([&](const CapturedFrame& frame) {
    const int now = ++inHands;
    mostInHands = std::max(mostInHands.load(), now);
    slow(frame);
    std::this_thread::sleep_for(150ms);  // far slower than 30 frames per second
    --inHands;
  });
  // Every sample is due (idle rate = active rate): the consumer is the bottleneck.
  source.start(options(0, 320, 240, 30, 30));
  try {
    source.start(options(0, 0, 0));
    ADD_FAILURE() << "second start accepted";
  } catch (const CaptureError& error) {
    EXPECT_EQ(error, CaptureError::alreadyRunning());
  }
  ASSERT_TRUE(slow.waitFor(6));  // the running capture was left alone
  source.stop();
  source.stop();
  auto frames = slow.frames();
  for (std::size_t i = 0; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i].sequence, std::int64_t(i) + 1);
  }
  EXPECT_EQ(mostInHands.load(), 1);
  EXPECT_GT(source.statistics().dropped, 0);
  EXPECT_EQ(source.statistics().delivered, std::int64_t(frames.size()));
  const std::int64_t lastSequence = frames.back().sequence;

  FrameLog sink;
  source.setFrameReady(std::ref(sink));
  source.start(options(0, 0, 0, 30, 2));
  ASSERT_TRUE(sink.waitFor(3));
  EXPECT_EQ(sink.frames().front().sequence, lastSequence + 1);
  // Settled, three idle frames: the same picture again, the screen read for
  // the idle frames only (the server reports no change).
  const auto settled = source.statistics();
  ASSERT_TRUE(sink.waitFor(sink.frames().size() + 3));
  const auto still = source.statistics();
  EXPECT_EQ(still.converted, settled.converted);
  EXPECT_LE(still.captured - settled.captured, still.delivered - settled.delivered + 1);
  frames = sink.frames();
  EXPECT_EQ(frames.back().nativeSurface, frames[frames.size() - 2].nativeSurface);

  painter.fill(100, 100, 50, 50, kRed);
  bool changed = false;
  for (std::size_t count = frames.size() + 1; !changed && count < frames.size() + 60; ++count) {
    ASSERT_TRUE(sink.waitFor(count));
    auto* surface = static_cast<Nv12FrameSurface*>(sink.frames().back().nativeSurface.get());
    changed = std::abs(surface->luma()[120 * surface->lumaStride() + 120] - 76) <= 4;  // red
  }
  source.stop();
  EXPECT_TRUE(changed) << "the red square never showed up";
  EXPECT_GT(source.statistics().converted, still.converted);
}

TEST(CaptureTest, ServerThatGoesAwayIsReportedAsCaptureFailed) {
  if (skipWithoutXvfb()) GTEST_SKIP() << "Xvfb or xrandr is not installed";
  auto server = std::make_unique<XvfbServer>(640, 480);
  ScreenCaptureSource source(server->display());
  FrameLog sink;
  std::mutex mutex;
  std::condition_variable reported;
  std::optional<CaptureError> failure;
  source.setFrameReady(std::ref(sink));
  source.setCaptureFailed([&](const CaptureError& error) {
    source.stop();  // an owner may stop from inside the callback
    std::lock_guard lock(mutex);
    failure = error;
    reported.notify_all();
  });
  source.start(options(0, 0, 0, 30, 2));
  ASSERT_TRUE(sink.waitFor(1));
  // The clipboard of the same server stops too, not waiting on the dead
  // connection.
  X11Clipboard clipboard(server->display());
  clipboard.start();
  // A crash, not a shutdown: the lock file stays, so no server of a test
  // running beside this one takes the display number before the restart below.
  const std::string number = server->display().substr(1);
  ::kill(server->process().pid(), SIGKILL);
  std::unique_lock lock(mutex);
  ASSERT_TRUE(reported.wait_for(lock, 20s, [&] { return failure.has_value(); }));
  EXPECT_EQ(failure->kind(), CaptureError::Case::captureFailed) << failure->what();
  lock.unlock();
  source.stop();
  source.stop();
  clipboard.stop();
  // The source can be started again, and says the display is gone.
  EXPECT_THROW(source.start(options(0, 0, 0)), CaptureError);
  server.reset();
  std::filesystem::remove("/tmp/.X" + number + "-lock");
  std::filesystem::remove("/tmp/.X11-unix/X" + number);
}

// Monitors added and removed while capture runs, followed as the agent does:
// the switcher restarts capture on the watched monitor while it exists, else
// on the first, the phone gets each new list, and frames keep coming at the
// watched monitor's capture size.
TEST(CaptureTest, MonitorsThatComeAndGoKeepTheVideoFlowing) {
  if (skipWithoutXvfb()) GTEST_SKIP() << "Xvfb or xrandr is not installed";
  XvfbServer server(4000, 1200);
  ScreenPainter painter(server.display());
  ASSERT_EQ(server.run("xrandr --setmonitor zul-a 1920/508x1080/286+0+0 screen >/dev/null"), 0);
  ASSERT_EQ(server.run("xrandr --setmonitor zul-b 1280/338x1024/271+1920+176 none >/dev/null"), 0);

  ScreenCaptureSource capture(server.display());
  FrameLog frames;
  capture.setFrameReady(std::ref(frames));
  std::mutex mutex;
  std::condition_variable listed;
  std::vector<nlohmann::json> lists;
  auto restart = [&](std::int64_t index) {
    const auto displays = ScreenCaptureSource::availableDisplays(server.display());
    if (index < 0 || index >= std::int64_t(displays.size())) {
      throw CaptureError::displayUnavailable(index);
    }
    const CaptureSize size = captureSizeFor(displays[std::size_t(index)]);
    capture.stop();
    capture.start(options(index, size.width, size.height));
    return displays[std::size_t(index)];
  };
  DisplaySwitcher switcher({
      .availableDisplays = [&] { return ScreenCaptureSource::availableDisplays(server.display()); },
      .primaryDisplayID = [] { return std::optional<std::uint32_t>(); },
      .activeSessionId = [] { return std::optional<std::string>("s-1"); },
      .sendControl =
          [&](const std::string& text) {
            std::lock_guard lock(mutex);
            lists.push_back(nlohmann::json::parse(text));
            listed.notify_all();
          },
      .restartCapture = restart,
      .onSwitched = [](const DisplayDescriptor&) {},
      .print = [](std::string_view) {},
      .nowMilliseconds = [] { return std::int64_t(0); },
      .capturedDisplayID = [&] { return capture.resolvedDisplayID(); },
  });
  capture.setDisplaysChanged(
      [&](const std::vector<DisplayDescriptor>&) { switcher.displaysChanged(); });
  restart(1);

  // Without zul-a, RandR lists the screen's output as a monitor of its own,
  // after the others.
  const struct {
    const char* command;
    std::size_t monitors;
    std::int64_t selected;
    const char* watched;
  } steps[] = {
      {"xrandr --setmonitor zul-c 800/212x600/159+3200+0 none", 3, 1, "zul-b"},
      {"xrandr --delmonitor zul-a", 3, 0, "zul-b"},
      {"xrandr --delmonitor zul-b", 2, 0, "zul-c"},
  };
  for (const auto& step : steps) {
    SCOPED_TRACE(step.command);
    std::unique_lock lock(mutex);
    const std::size_t before = lists.size();
    lock.unlock();
    ASSERT_EQ(server.run(std::string(step.command) + " >/dev/null"), 0);
    lock.lock();
    ASSERT_TRUE(listed.wait_for(lock, 20s, [&] { return lists.size() > before; }));
    EXPECT_EQ(lists.back()["monitors"].size(), step.monitors);
    EXPECT_EQ(lists.back()["selected"], step.selected);
    lock.unlock();
    EXPECT_EQ(capture.resolvedDisplayID(), painter.atom(step.watched));
    ASSERT_TRUE(frames.waitFor(frames.frames().size() + 3));
    const CaptureSize size = captureSizeFor(
        ScreenCaptureSource::availableDisplays(server.display())[std::size_t(step.selected)]);
    EXPECT_EQ(frames.frames().back().width, size.width);
    EXPECT_EQ(frames.frames().back().height, size.height);
  }
  switcher.shutdown();
  capture.stop();
}

}  // namespace
}  // namespace zul
