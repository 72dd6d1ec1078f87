#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <thread>
#include <vector>

#include "ZulAgent/orchestration/CaptureGeometry.h"
#include "ZulAgent/orchestration/DisplaySwitcher.h"
#include "ZulPlatform/linux/capture/Nv12FrameSurface.h"
#include "ZulPlatform/linux/x11/ScreenCaptureSource.h"
#include "support/ChildProcess.h"
#include "support/XvfbServer.h"
// Xlib last: its macros must not reach the headers above.
#include "integration/ScreenPainter.h"

namespace zul {
namespace {

using namespace std::chrono_literals;
using test::ScreenPainter;
using test::XvfbServer;

constexpr unsigned kRed = 0xff0000, kGreen = 0x00ff00, kBlue = 0x0000ff, kWhite = 0xffffff;

CaptureOptions options(std::int64_t index, std::int64_t width, std::int64_t height,
                       std::int64_t fps = 30, std::int64_t idleFps = 30) {
  return CaptureOptions{.displayIndex = index,
                        .width = width,
                        .height = height,
                        .framesPerSecond = fps,
                        .idleFramesPerSecond = idleFps,
                        .convertHdrToSdr = true};
}

// Collects frames from the capture thread; waits without a time budget of
// its own beyond a generous guard against hanging.
class FrameSink {
 public:
  void operator()(const CapturedFrame& frame) {
    std::lock_guard lock(mutex_);
    frames_.push_back(frame);
    changed_.notify_all();
  }
  bool waitFor(std::size_t count, std::chrono::seconds guard = 20s) {
    std::unique_lock lock(mutex_);
    return changed_.wait_for(lock, guard, [&] { return frames_.size() >= count; });
  }
  std::vector<CapturedFrame> frames() {
    std::lock_guard lock(mutex_);
    return frames_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<CapturedFrame> frames_;
};

bool skipWithoutXvfb() { return !test::haveProgram("Xvfb") || !test::haveProgram("xrandr"); }

// Two side-by-side 960x1080 monitors on one 1920x1080 screen.
void splitIntoTwoMonitors(const XvfbServer& server) {
  ASSERT_EQ(server.run("xrandr --setmonitor zul-left 960/254x1080/286+0+0 screen >/dev/null"), 0);
  ASSERT_EQ(server.run("xrandr --setmonitor zul-right 960/254x1080/286+960+0 none >/dev/null"), 0);
}

TEST(ScreenCaptureSourceTest, ListsTheMonitorsAndRefusesIndexesThatNameNone) {
  if (skipWithoutXvfb()) GTEST_SKIP() << "Xvfb or xrandr is not installed";
  XvfbServer server(1920, 1080);
  ScreenPainter painter(server.display());
  splitIntoTwoMonitors(server);

  auto displays = ScreenCaptureSource::availableDisplays(server.display());
  ASSERT_EQ(displays.size(), 2u);
  EXPECT_EQ(displays[0],
            (DisplayDescriptor{0, std::uint32_t(painter.atom("zul-left")), 960, 1080, 0, 0}));
  EXPECT_EQ(displays[1],
            (DisplayDescriptor{1, std::uint32_t(painter.atom("zul-right")), 960, 1080, 960, 0}));

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
}

TEST(ScreenCaptureSourceTest, DisplayThatDoesNotExistIsReported) {
  const std::string missing = ":" + std::to_string(4000 + ::getpid() % 1000);
  EXPECT_THROW(ScreenCaptureSource::availableDisplays(missing), CaptureError);
  ScreenCaptureSource source(missing);
  try {
    source.start(options(0, 0, 0));
    ADD_FAILURE() << "started on " << missing;
  } catch (const CaptureError& error) {
    EXPECT_EQ(error.kind(), CaptureError::Case::platformUnsupported) << error.what();
  }
  source.stop();
}

struct PatternCase {
  const char* name;
  int requestedWidth, requestedHeight;  // 0: the monitor's own
  int expectedWidth, expectedHeight;
  int monitor;
};

TEST(ScreenCaptureSourceTest, CapturesTheDrawnPatternAtTheRequestedSize) {
  if (skipWithoutXvfb()) GTEST_SKIP() << "Xvfb or xrandr is not installed";
  XvfbServer server(1920, 1080);
  ScreenPainter painter(server.display());
  splitIntoTwoMonitors(server);
  // Left monitor: red, green / blue, white quadrants. Right monitor: blue.
  painter.fill(0, 0, 480, 540, kRed);
  painter.fill(480, 0, 480, 540, kGreen);
  painter.fill(0, 540, 480, 540, kBlue);
  painter.fill(480, 540, 480, 540, kWhite);
  painter.fill(960, 0, 960, 1080, kBlue);
  painter.movePointer(1919, 1079);  // the cursor is drawn in: keep it out of the samples

  const PatternCase cases[] = {
      {"own size", 0, 0, 960, 1080, 0},
      {"scaled down", 480, 270, 480, 270, 0},
      {"scaled up", 1280, 1440, 1280, 1440, 0},
      {"second monitor", 320, 360, 320, 360, 1},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    ScreenCaptureSource source(server.display());
    FrameSink sink;
    source.setFrameReady(std::ref(sink));
    source.start(options(c.monitor, c.requestedWidth, c.requestedHeight));
    ASSERT_TRUE(sink.waitFor(1));
    source.stop();
    const CapturedFrame frame = sink.frames().front();
    EXPECT_EQ(frame.sequence, 1);
    EXPECT_EQ(frame.width, c.expectedWidth);
    EXPECT_EQ(frame.height, c.expectedHeight);
    EXPECT_EQ(frame.pixelFormat, PixelFormat::nv12);
    EXPECT_EQ(frame.displayIndex, c.monitor);
    EXPECT_EQ(frame.dataSize(), 0u);  // the pixels travel in the surface only
    EXPECT_EQ(frame.dirtyRegions, (std::vector<RectPx>{{0, 0, c.expectedWidth, c.expectedHeight}}));
    auto* surface = dynamic_cast<Nv12FrameSurface*>(frame.nativeSurface.get());
    ASSERT_NE(surface, nullptr);
    ASSERT_EQ(surface->width(), c.expectedWidth);
    ASSERT_EQ(surface->height(), c.expectedHeight);

    // Sample the middle of each quadrant.
    struct Sample {
      double fx, fy;
      unsigned rgb;
    };
    const std::vector<Sample> samples =
        c.monitor == 0 ? std::vector<Sample>{{0.25, 0.25, kRed},
                                             {0.75, 0.25, kGreen},
                                             {0.25, 0.75, kBlue},
                                             {0.75, 0.75, kWhite}}
                       : std::vector<Sample>{{0.5, 0.5, kBlue}, {0.1, 0.1, kBlue}};
    for (const auto& s : samples) {
      const int x = int(s.fx * c.expectedWidth), y = int(s.fy * c.expectedHeight);
      const auto expected = test::fullRangeYuv(s.rgb);
      const int luma = surface->luma()[y * surface->lumaStride() + x];
      const std::uint8_t* uv = surface->chroma() + (y / 2) * surface->chromaStride() + (x / 2) * 2;
      EXPECT_NEAR(luma, expected.y, 4) << "at " << x << "," << y;
      EXPECT_NEAR(uv[0], expected.u, 4) << "at " << x << "," << y;
      EXPECT_NEAR(uv[1], expected.v, 4) << "at " << x << "," << y;
    }
    EXPECT_EQ(source.resolvedDisplayID(),
              std::uint32_t(painter.atom(c.monitor == 0 ? "zul-left" : "zul-right")));
  }
}

TEST(ScreenCaptureSourceTest, SlowConsumerGetsOneFrameAtATimeWithNoGapInSequence) {
  if (skipWithoutXvfb()) GTEST_SKIP() << "Xvfb or xrandr is not installed";
  XvfbServer server(640, 480);
  ScreenPainter painter(server.display());
  ScreenCaptureSource source(server.display());
  std::atomic<int> inHands{0}, mostInHands{0};
  FrameSink sink;
  source.setFrameReady([&](const CapturedFrame& frame) {
    const int now = ++inHands;
    mostInHands = std::max(mostInHands.load(), now);
    sink(frame);
    std::this_thread::sleep_for(150ms);  // far slower than 30 frames per second
    --inHands;
  });
  // Every sample is due (idle rate = active rate), so the consumer is the bottleneck.
  source.start(options(0, 320, 240, 30, 30));
  ASSERT_TRUE(sink.waitFor(6));
  source.stop();
  const auto frames = sink.frames();
  for (std::size_t i = 0; i < frames.size(); ++i) {
    EXPECT_EQ(frames[i].sequence, std::int64_t(i) + 1);
  }
  EXPECT_EQ(mostInHands.load(), 1);
  const auto stats = source.statistics();
  EXPECT_GT(stats.dropped, 0);
  EXPECT_EQ(stats.delivered, std::int64_t(frames.size()));

  // The sequence goes on across a restart.
  FrameSink second;
  source.setFrameReady(std::ref(second));
  source.start(options(0, 320, 240));
  ASSERT_TRUE(second.waitFor(1));
  source.stop();
  EXPECT_EQ(second.frames().front().sequence, std::int64_t(frames.size()) + 1);
}

TEST(ScreenCaptureSourceTest, StillScreenCostsOneConversionAndChangesAreSeen) {
  if (skipWithoutXvfb()) GTEST_SKIP() << "Xvfb or xrandr is not installed";
  XvfbServer server(640, 480);
  ScreenPainter painter(server.display());
  painter.movePointer(639, 479);
  painter.fill(0, 0, 640, 480, kGreen);
  ScreenCaptureSource source(server.display());
  FrameSink sink;
  source.setFrameReady(std::ref(sink));
  source.start(options(0, 0, 0, 30, 2));
  // Let the screen settle (the first pictures may still carry the fill),
  // then watch three idle frames.
  ASSERT_TRUE(sink.waitFor(3));
  const auto settled = source.statistics();
  const auto settledCount = sink.frames().size();
  ASSERT_TRUE(sink.waitFor(settledCount + 3));
  const auto still = source.statistics();
  EXPECT_EQ(still.converted, settled.converted);  // repeats hand out the same picture again
  // The server reports no change: the screen is read for the idle frames only.
  EXPECT_LE(still.captured - settled.captured, still.delivered - settled.delivered + 1);
  auto frames = sink.frames();
  EXPECT_EQ(frames.back().nativeSurface, frames[frames.size() - 2].nativeSurface);

  painter.fill(100, 100, 50, 50, kRed);
  std::shared_ptr<NativeVideoSurface> changed;
  for (std::size_t count = frames.size() + 1; !changed && sink.waitFor(count); ++count) {
    const auto latest = sink.frames().back();
    auto* surface = static_cast<Nv12FrameSurface*>(latest.nativeSurface.get());
    const int luma = surface->luma()[120 * surface->lumaStride() + 120];
    if (std::abs(luma - test::fullRangeYuv(kRed).y) <= 4) {
      changed = latest.nativeSurface;
    }
    if (count > frames.size() + 60) break;
  }
  source.stop();
  EXPECT_TRUE(changed) << "the red square never showed up";
  EXPECT_GT(source.statistics().converted, still.converted);
}

TEST(ScreenCaptureSourceTest, SecondStartFailsAndStopIsIdempotent) {
  if (skipWithoutXvfb()) GTEST_SKIP() << "Xvfb or xrandr is not installed";
  XvfbServer server(640, 480);
  ScreenCaptureSource source(server.display());
  FrameSink sink;
  source.setFrameReady(std::ref(sink));
  source.stop();  // stopping a stopped source does nothing
  source.start(options(0, 0, 0));
  try {
    source.start(options(0, 0, 0));
    ADD_FAILURE() << "second start accepted";
  } catch (const CaptureError& error) {
    EXPECT_EQ(error, CaptureError::alreadyRunning());
  }
  const auto before = sink.frames().size();
  EXPECT_TRUE(sink.waitFor(before + 2));  // the running capture was left alone
  source.stop();
  source.stop();
}

TEST(ScreenCaptureSourceTest, ServerThatGoesAwayIsReportedAsCaptureFailed) {
  if (skipWithoutXvfb()) GTEST_SKIP() << "Xvfb or xrandr is not installed";
  auto server = std::make_unique<XvfbServer>(640, 480);
  ScreenCaptureSource source(server->display());
  FrameSink sink;
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
  // A crash, not a shutdown: the server's lock file stays, so no server of a
  // test running beside this one takes the display number before the restart
  // check below.
  const std::string number = server->display().substr(1);
  ::kill(server->process().pid(), SIGKILL);

  std::unique_lock lock(mutex);
  ASSERT_TRUE(reported.wait_for(lock, 20s, [&] { return failure.has_value(); }));
  EXPECT_EQ(failure->kind(), CaptureError::Case::captureFailed) << failure->what();
  lock.unlock();
  source.stop();
  source.stop();
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
TEST(ScreenCaptureSourceTest, MonitorsThatComeAndGoKeepTheVideoFlowing) {
  if (skipWithoutXvfb()) GTEST_SKIP() << "Xvfb or xrandr is not installed";
  XvfbServer server(4000, 1200);
  ScreenPainter painter(server.display());
  ASSERT_EQ(server.run("xrandr --setmonitor zul-a 1920/508x1080/286+0+0 screen >/dev/null"), 0);
  ASSERT_EQ(server.run("xrandr --setmonitor zul-b 1280/338x1024/271+1920+176 none >/dev/null"), 0);

  ScreenCaptureSource capture(server.display());
  FrameSink frames;
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

  struct Step {
    const char* command;
    std::size_t monitors;
    std::int64_t selected;
    const char* watched;
  };
  // Without zul-a, RandR lists the screen's output as a monitor of its own,
  // after the others.
  const Step steps[] = {
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
    EXPECT_EQ(capture.resolvedDisplayID(), std::uint32_t(painter.atom(step.watched)));
    const std::size_t count = frames.frames().size();
    ASSERT_TRUE(frames.waitFor(count + 3));
    const auto watched =
        ScreenCaptureSource::availableDisplays(server.display())[std::size_t(step.selected)];
    EXPECT_EQ(frames.frames().back().width, captureSizeFor(watched).width);
    EXPECT_EQ(frames.frames().back().height, captureSizeFor(watched).height);
  }
  switcher.shutdown();
  capture.stop();
}

}  // namespace
}  // namespace zul
