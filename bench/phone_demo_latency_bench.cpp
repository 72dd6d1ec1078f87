// The phone's view of the LAN phone demo on loopback, on a private 1920x1080
// X screen with headless Chromium as the phone: glass-to-glass latency (a
// change drawn on the screen until the browser's decoded frame shows it,
// median and 95th percentile), then, while the screen moves without pause,
// the decoded resolution and frame rate and the agent's CPU time per streamed
// frame, beside ffmpeg's x11grab + libx264 (ultrafast, zerolatency) grabbing
// the same moving screen.
//
//   zul-phone-demo-latency-bench [changes] [WIDTHxHEIGHT]   (default 60 1920x1080)
//   ZUL_BENCH_AGENT=<path>: another agent executable (an older build);
//   ZUL_MAX_FPS is passed on to the agent.

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <sstream>
#include <thread>

#include "e2e/HeadlessChromium.h"
#include "e2e/ScreenPattern.h"
#include "support/ChildProcess.h"
#include "support/XvfbServer.h"

using namespace std::chrono_literals;
using zul::test::ChildProcess;
using zul::test::HeadlessChromium;
using zul::test::Rgb;

namespace {

double wallMs() {
  return std::chrono::duration<double, std::milli>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

// In the page: watch every presented video frame and note, in wall-clock
// milliseconds, when the probe square turns bright or dark.
constexpr const char* installProbe = R"js((() => {
  const v = document.getElementById("video");
  const c = document.createElement("canvas");
  c.width = 8; c.height = 8;
  const g = c.getContext("2d", { willReadFrequently: true });
  window.probe = { want: null, resolve: null };
  const onFrame = () => {
    if (probe.want !== null && v.videoWidth) {
      const sx = Math.floor(v.videoWidth * 64 / SCREEN_W), sy = Math.floor(v.videoHeight * 64 / SCREEN_H);
      g.drawImage(v, sx, sy, 8, 8, 0, 0, 8, 8);
      const luma = g.getImageData(4, 4, 1, 1).data[1];
      if ((probe.want === "bright") === (luma > 128)) {
        const at = performance.timeOrigin + performance.now();
        const resolve = probe.resolve;
        probe.want = null;
        resolve(at);
      }
    }
    v.requestVideoFrameCallback(onFrame);
  };
  v.requestVideoFrameCallback(onFrame);
  return true;
})())js";

// CPU seconds (user + system) that process `pid` has used so far.
double cpuSecondsOf(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), {});
  std::istringstream fields(text.substr(text.rfind(')') + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  for (int i = 3; i <= 15 && fields >> field; ++i) {
    if (i == 14) utime = std::stoull(field);
    if (i == 15) stime = std::stoull(field);
  }
  return double(utime + stime) / double(sysconf(_SC_CLK_TCK));
}

double childrenCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  auto seconds = [](const timeval& t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// Flips the probe square as fast as the X server takes it, for `seconds`.
void keepMoving(zul::test::ScreenPattern& pattern, double seconds) {
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  for (int i = 0; std::chrono::steady_clock::now() < until; ++i) {
    pattern.fillSquare(32 + (i % 8) * 40, 32, 96, i % 2 ? Rgb{240, 240, 240} : Rgb{40, 40, 40});
    std::this_thread::sleep_for(5ms);
  }
}

int waitForPort(ChildProcess& agent) {
  while (auto line = agent.readStdoutLine(60s)) {
    const auto at = line->find("http://");
    if (at != std::string::npos) return std::stoi(line->substr(line->rfind(':') + 1));
  }
  return -1;
}

}  // namespace

int main(int argc, char** argv) {
  const int changes = argc > 1 ? std::max(1, std::atoi(argv[1])) : 60;
  int screenWidth = 1920, screenHeight = 1080;
  if (argc > 2) std::sscanf(argv[2], "%dx%d", &screenWidth, &screenHeight);
  const char* agentPath = std::getenv("ZUL_BENCH_AGENT");
  if (!agentPath || !*agentPath) agentPath = ZUL_AGENT_PATH;
  const char* maxFps = std::getenv("ZUL_MAX_FPS");
  if (!HeadlessChromium::available()) {
    std::printf("phone-demo latency: skipped (no %s)\n", HeadlessChromium::program);
    return 0;
  }
  try {
    zul::test::XvfbServer xvfb(screenWidth, screenHeight);
    zul::test::ScreenPattern pattern(xvfb.display());
    pattern.show({Rgb{40, 40, 40}, Rgb{40, 40, 40}, Rgb{40, 40, 40}, Rgb{40, 40, 40}});

    ChildProcess::Options options;
    options.env = {
        {"DISPLAY", xvfb.display()}, {"ZUL_DEMO_SECONDS", "900"}, {"ZUL_DEMO_PORT", "0"}};
    if (maxFps) options.env["ZUL_MAX_FPS"] = maxFps;
    options.captureStdout = true;
    ChildProcess agent({agentPath, "--phone-demo"}, options);
    const int port = waitForPort(agent);
    if (port <= 0) throw std::runtime_error("the demo announced no port");

    HeadlessChromium browser;
    const std::string page = browser.openPage("http://127.0.0.1:" + std::to_string(port) + "/");
    const std::string decoded = R"js((async () => {
      if (typeof pc === "undefined") return 0;
      let n = 0;
      (await pc.getStats()).forEach((s) => { if (s.type === "inbound-rtp") n = s.framesDecoded || 0; });
      return n;
    })())js";
    for (int i = 0; i < 600 && browser.evaluate(page, decoded).get<int>() < 10; ++i) {
      std::this_thread::sleep_for(100ms);
    }
    std::string probe = installProbe;
    for (auto [name, value] : {std::pair{"SCREEN_W", screenWidth}, {"SCREEN_H", screenHeight}}) {
      probe.replace(probe.find(name), std::string(name).size(), std::to_string(value));
    }
    browser.evaluate(page, probe);

    std::mt19937 random(7);
    std::uniform_int_distribution<int> gap(150, 350);
    std::vector<double> latencies;
    const int framesBefore = browser.evaluate(page, decoded).get<int>();
    const auto started = std::chrono::steady_clock::now();
    for (int i = 0; i < changes; ++i) {
      const bool bright = i % 2 == 0;
      browser.evaluate(page, std::string("(() => { probe.want = '") + (bright ? "bright" : "dark") +
                                 "'; window.seen = new Promise((r) => probe.resolve = r); "
                                 "return true; })()");
      const double drawnAt = wallMs();
      pattern.fillSquare(32, 32, 96, bright ? Rgb{240, 240, 240} : Rgb{40, 40, 40});
      const double seenAt = browser.evaluate(page, "window.seen", 10s).get<double>();
      latencies.push_back(seenAt - drawnAt);
      std::this_thread::sleep_for(std::chrono::milliseconds(gap(random)));
    }
    const double seconds =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const int framesAfter = browser.evaluate(page, decoded).get<int>();

    std::sort(latencies.begin(), latencies.end());
    auto at = [&](double q) {
      return latencies[std::min(
          latencies.size() - 1,
          static_cast<std::size_t>(q * static_cast<double>(latencies.size())))];
    };
    // A screen that never stops moving: what the phone decodes, and what
    // each streamed frame costs the agent.
    constexpr double movingSeconds = 6;
    const int movingBefore = browser.evaluate(page, decoded).get<int>();
    const double agentCpuBefore = cpuSecondsOf(agent.pid());
    const auto movingStarted = std::chrono::steady_clock::now();
    keepMoving(pattern, movingSeconds);
    const double movingElapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - movingStarted).count();
    const double agentCpu = cpuSecondsOf(agent.pid()) - agentCpuBefore;
    const int movingFrames = browser.evaluate(page, decoded).get<int>() - movingBefore;
    const auto view =
        browser.evaluate(page,
                         "(() => { const v = document.getElementById('video'); "
                         "return { width: v.videoWidth, height: v.videoHeight }; })()");

    // The reference: ffmpeg grabbing and encoding the same moving screen.
    const int referenceFps = maxFps ? std::max(1, std::atoi(maxFps)) : 30;
    const std::string ffmpeg =
        "ffmpeg -hide_banner -nostats -loglevel error -f x11grab -framerate " +
        std::to_string(referenceFps) + " -video_size " + std::to_string(screenWidth) + "x" +
        std::to_string(screenHeight) + " -i " + xvfb.display() + " -t " +
        std::to_string(int(movingSeconds)) +
        " -c:v libx264 -preset ultrafast -tune zerolatency -pix_fmt yuv420p -f null - "
        ">/dev/null 2>&1";
    const double referenceCpuBefore = childrenCpuSeconds();
    std::thread reference([&] { (void)std::system(ffmpeg.c_str()); });
    keepMoving(pattern, movingSeconds + 1);
    reference.join();
    const double referenceCpu = childrenCpuSeconds() - referenceCpuBefore;
    const double referenceFrames = movingSeconds * referenceFps;

    std::printf("phone-demo on loopback, %dx%d screen, agent %s\n", screenWidth, screenHeight,
                agentPath);
    std::printf("latency (screen change -> decoded frame in Chromium)\n");
    std::printf("  changes: %zu\n", latencies.size());
    std::printf("  median:  %.1f ms\n", at(0.5));
    std::printf("  p95:     %.1f ms\n", at(0.95));
    std::printf("  min/max: %.1f / %.1f ms\n", latencies.front(), latencies.back());
    std::printf("  decoded: %.1f frames/s during the run\n",
                (framesAfter - framesBefore) / seconds);
    std::printf("moving screen, %.0f s\n", movingElapsed);
    std::printf("  decoded: %dx%d at %.1f frames/s\n", view["width"].get<int>(),
                view["height"].get<int>(), movingFrames / movingElapsed);
    std::printf("  agent:   %.2f ms CPU per streamed frame (%d frames, %.1f%% of one core)\n",
                movingFrames > 0 ? agentCpu * 1000 / movingFrames : 0.0, movingFrames,
                agentCpu * 100 / movingElapsed);
    std::printf("  ffmpeg x11grab + libx264: %.2f ms CPU per frame (%.0f frames at %d fps)\n",
                referenceCpu * 1000 / referenceFrames, referenceFrames, referenceFps);
    if (movingFrames > 0) {
      std::printf("  agent / ffmpeg: %.2fx\n",
                  (agentCpu / movingFrames) / (referenceCpu / referenceFrames));
    }
  } catch (const std::exception& error) {
    std::printf("phone-demo latency: failed: %s\n", error.what());
    return 1;
  }
  return 0;
}
