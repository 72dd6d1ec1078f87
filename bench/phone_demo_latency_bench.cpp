// Glass-to-glass latency of the LAN phone demo on loopback: the time from a
// change drawn on a private X screen to the browser's decoded frame showing
// it. Runs `zul-agent --phone-demo` on Xvfb and headless Chromium as the
// phone; prints the median and 95th percentile over many changes.
//
//   zul-phone-demo-latency-bench [changes]   (default 60)

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
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
      const sx = Math.floor(v.videoWidth * 64 / 1280), sy = Math.floor(v.videoHeight * 64 / 720);
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
  if (!HeadlessChromium::available()) {
    std::printf("phone-demo latency: skipped (no %s)\n", HeadlessChromium::program);
    return 0;
  }
  try {
    zul::test::XvfbServer xvfb(1280, 720);
    zul::test::ScreenPattern pattern(xvfb.display());
    pattern.show({Rgb{40, 40, 40}, Rgb{40, 40, 40}, Rgb{40, 40, 40}, Rgb{40, 40, 40}});

    ChildProcess::Options options;
    options.env = {
        {"DISPLAY", xvfb.display()}, {"ZUL_DEMO_SECONDS", "900"}, {"ZUL_DEMO_PORT", "0"}};
    options.captureStdout = true;
    ChildProcess agent({ZUL_AGENT_PATH, "--phone-demo"}, options);
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
    browser.evaluate(page, installProbe);

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
    std::printf(
        "phone-demo latency (screen change -> decoded frame in Chromium, loopback, "
        "capture at 15 fps, 1280x720 H.264)\n");
    std::printf("  changes: %zu\n", latencies.size());
    std::printf("  median:  %.1f ms\n", at(0.5));
    std::printf("  p95:     %.1f ms\n", at(0.95));
    std::printf("  min/max: %.1f / %.1f ms\n", latencies.front(), latencies.back());
    std::printf("  decoded: %.1f frames/s during the run\n",
                (framesAfter - framesBefore) / seconds);
  } catch (const std::exception& error) {
    std::printf("phone-demo latency: failed: %s\n", error.what());
    return 1;
  }
  return 0;
}
