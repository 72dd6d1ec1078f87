// The phone's view of the agent, on private X screens of 1280x720 and
// 1920x1080 with headless Chromium as the phone: glass-to-glass latency (a
// change drawn on the screen until the browser's decoded frame shows it;
// median, 95th percentile and worst) for three kinds of change: a small
// square, a whole new screen, and two new pages of text-like content (many
// small glyph-like blocks), with the bytes that reached the phone from the
// change until it showed. First through the LAN phone demo, then through the
// real agent (rendezvous server, a paired phone page in session). Then, while
// the screen moves without pause, the decoded resolution and frame rate and
// the demo's CPU time per streamed frame, beside ffmpeg's x11grab + libx264
// (ultrafast, zerolatency, baseline) grabbing the same moving screen.
//
//   zul-phone-demo-latency-bench [--changes N] [--size WxH]... [--netem]
//                                [--only demo|agent]
//
// --netem puts the agent in a network namespace of its own behind a veth pair
// limited to 4 Mbit/s with 25 ms of delay each way (50 ms round trip; a
// kernel without netem gets the rate limit alone, and the run says so); it
// needs root (ip netns, tc).
// ZUL_BENCH_AGENT=<path>: another agent executable (an older build);
// ZUL_MAX_FPS is passed on to the agent.

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <random>
#include <sstream>
#include <thread>

#include "ScreenPattern.h"
#include "e2e/HeadlessChromium.h"
#include "support/ChildProcess.h"
#include "support/ThrottledLink.h"
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
// milliseconds, when the probe square turns bright or dark; probeBytes() are
// the video bytes received so far (the browser renews its statistics at most
// every 50 ms). PEER is the page's peer connection.
constexpr const char* installProbe = R"js((() => {
  const v = document.getElementById("video");
  const c = document.createElement("canvas");
  c.width = 8; c.height = 8;
  const g = c.getContext("2d", { willReadFrequently: true });
  window.probe = { want: null, resolve: null, bytesBefore: 0 };
  window.probeLosses = async () => {
    const out = { lost: 0, nacks: 0, plis: 0, keyFrames: 0 };
    (await (PEER).getStats()).forEach((s) => {
      if (s.type === "inbound-rtp" && s.kind === "video") {
        out.lost = s.packetsLost || 0; out.nacks = s.nackCount || 0;
        out.plis = s.pliCount || 0; out.keyFrames = s.keyFramesDecoded || 0;
      }
    });
    return out;
  };
  window.probeBytes = async () => {
    let b = 0;
    (await (PEER).getStats()).forEach((s) => {
      if (s.type === "inbound-rtp" && s.kind === "video") b = s.bytesReceived || 0;
    });
    return b;
  };
  // The receiver's running totals (seconds), for the difference over a change.
  window.probeTotals = async () => {
    const out = {};
    (await (PEER).getStats()).forEach((s) => {
      if (s.type === "inbound-rtp" && s.kind === "video") {
        for (const k of ["framesDecoded", "totalDecodeTime", "jitterBufferDelay",
                         "jitterBufferEmittedCount", "totalProcessingDelay", "totalAssemblyTime",
                         "bytesReceived", "qpSum", "framesDropped"]) out[k] = s[k] || 0;
      }
    });
    return out;
  };
  const wall = (t) => performance.timeOrigin + t;
  const shows = () => {
    const sx = Math.floor(v.videoWidth * 64 / SCREEN_W), sy = Math.floor(v.videoHeight * 64 / SCREEN_H);
    g.drawImage(v, sx, sy, 8, 8, 0, 0, 8, 8);
    return (probe.want === "bright") === (g.getImageData(4, 4, 1, 1).data[1] > 128);
  };
  // The element may hand the canvas its previous picture during the frame's
  // callback: look again shortly after, as an eye on the screen would.
  const lookAgain = (meta, tries) => {
    if (probe.want === null || probe.frame !== meta) return;
    if (shows()) return found(meta, true);
    if (tries > 0) setTimeout(() => lookAgain(meta, tries - 1), 2);
  };
  const found = (meta, late) => {
    const at = wall(performance.now());
    const resolve = probe.resolve;
    probe.want = null;
    resolve({ at, late, rtp: meta.rtpTimestamp ?? -1,
              received: meta.receiveTime ? wall(meta.receiveTime) : 0,
              decodeMs: (meta.processingDuration || 0) * 1000,
              presented: wall(meta.presentationTime) });
  };
  const onFrame = (now, meta) => {
    if (probe.want !== null && v.videoWidth) {
      probe.frame = meta;
      if (!shows()) { setTimeout(() => lookAgain(meta, 8), 2); }
      else {
        // The frame that showed the change: its RTP time stamp, when its last
        // packet arrived, how long it took to decode, when it was handed to
        // the compositor; all wall-clock milliseconds.
        found(meta, false);
      }
    }
    v.requestVideoFrameCallback(onFrame);
  };
  v.requestVideoFrameCallback(onFrame);
  return true;
})())js";

// The kinds of change the phone is timed on.
enum class Content { square, screen, text };
constexpr Content contents[] = {Content::square, Content::screen, Content::text};
const char* nameOf(Content c) {
  return c == Content::square   ? "square 96px"
         : c == Content::screen ? "whole screen"
                                : "text pages";
}

// Where the time of one change went, in ms, from the agent's frame trace
// (ZUL_FRAME_TRACE) and the browser's figures of the frame that showed it.
// The steps follow each other, so they add up to the glass-to-glass time.
constexpr const char* stageNames[] = {
    "draw",  // the test draws the change on the X screen
    "wait",  // until the capture reads the screen
    "read",  // XShm read of the damaged area
    "conv",  // NV12 conversion of what changed
    "hand",  // to the video source
    "encq",  // in WebRTC's encoder queue
    "enc",   // libx264 (or the hardware encoder)
    "pkt",   // packetizing, into the pacer's queue
    "send",  // paced out and received (last packet)
    "jb",    // jitter buffer and frame assembly until decoding starts
    "dec",   // decoding
    "show",  // decoded until the page's video frame callback sees it
};
constexpr std::size_t stageCount = std::size(stageNames);
// The receiver's own totals over the change (all frames in it), in ms.
constexpr const char* totalNames[] = {"jitterBufferDelay", "totalProcessingDelay",
                                      "totalAssemblyTime", "totalDecodeTime"};

struct ChangeStages {
  double ms[stageCount] = {};
  double frameKb = 0;  // the encoded frame that carried the change
  double totalsMs[std::size(totalNames)] = {};
  int frames = 0;   // frames the receiver decoded over the change
  int dropped = 0;  // frames the receiver dropped over the change
  double qp = 0;    // mean quantizer of the frames decoded over the change
  double kbps = 0;  // the encoder's target rate for that frame
  double bwe = 0;   // the bandwidth estimate shared out then
};

// Glass-to-glass figures of one kind of change.
struct Changes {
  std::vector<double> ms;  // sorted
  std::vector<double> kb;  // sorted: kilobytes received from the change until it showed
  nlohmann::json losses;   // packets lost, NACKs and PLIs sent, key frames while changing
  int late = 0;            // changes the page saw only on a second look at their frame
  std::vector<std::pair<double, ChangeStages>> stages;  // by glass-to-glass time, where traced
  static double at(const std::vector<double>& v, double q) {
    return v.empty() ? 0 : v[std::min(v.size() - 1, std::size_t(q * double(v.size())))];
  }
};

// "key=value" of a trace line, or NaN.
double field(const std::string& line, const std::string& key) {
  const auto at = line.find(" " + key + "=");
  return at == std::string::npos ? std::nan("") : std::atof(line.c_str() + at + key.size() + 2);
}

// Joins a change with the agent's trace: the encoded frame by its RTP time
// stamp, the captured picture it was made of by the moment it was pushed.
std::optional<ChangeStages> stagesOf(double drawnAt, double drawnEnd, const nlohmann::json& seen,
                                     const nlohmann::json& totals,
                                     const std::vector<std::string>& trace,
                                     std::uint32_t rtpOffset) {
  const double received = seen.value("received", 0.0);
  if (seen.value("rtp", -1.0) < 0 || received <= 0) return std::nullopt;
  const double rtp = double(std::uint32_t(seen["rtp"].get<double>()) - rtpOffset);
  const std::string* encoded = nullptr;
  for (auto it = trace.rbegin(); it != trace.rend() && !encoded; ++it) {
    if (it->find("[frame] encoded ") != std::string::npos && field(*it, "rtp") == rtp) {
      encoded = &*it;
    }
  }
  if (!encoded) return std::nullopt;
  const double pushed = field(*encoded, "pushed");
  const std::string* captured = nullptr;
  for (const auto& line : trace) {
    if (line.find("[frame] captured ") != std::string::npos && field(line, "ready") <= pushed &&
        (!captured || field(line, "ready") > field(*captured, "ready"))) {
      captured = &line;
    }
  }
  if (!captured) return std::nullopt;
  const double readAt = field(*captured, "read_at"), read = field(*captured, "read");
  const double decodeMs = seen["decodeMs"].get<double>();
  const double presented = seen["presented"].get<double>();
  ChangeStages out;
  const double steps[] = {drawnEnd - drawnAt,
                          readAt - drawnEnd,
                          read,
                          field(*captured, "ready") - readAt - read,
                          pushed - field(*captured, "ready"),
                          field(*encoded, "encode_at") - pushed,
                          field(*encoded, "encoded") - field(*encoded, "encode_at"),
                          field(*encoded, "queued") - field(*encoded, "encoded"),
                          received - field(*encoded, "queued"),
                          presented - decodeMs - received,
                          decodeMs,
                          seen["at"].get<double>() - presented};
  std::copy(std::begin(steps), std::end(steps), out.ms);
  out.frameKb = field(*encoded, "bytes") / 1000;
  for (std::size_t k = 0; k < std::size(totalNames); ++k) {
    out.totalsMs[k] = totals.value(totalNames[k], 0.0) * 1000;
  }
  out.frames = totals.value("framesDecoded", 0);
  out.qp = out.frames > 0 ? totals.value("qpSum", 0.0) / out.frames : 0;
  out.kbps = field(*encoded, "kbps");
  out.bwe = field(*encoded, "bwe");
  out.dropped = totals.value("framesDropped", 0);
  return out;
}

// Draws `changes` changes of each kind on the screen and times them in the
// page's video, which `peer` (a JavaScript expression) sends through.
std::vector<Changes> timeChanges(HeadlessChromium& browser, const std::string& page,
                                 zul::test::ScreenPattern& pattern, int changes,
                                 const std::string& peer, const ChildProcess& agent) {
  std::string probe = installProbe;
  for (auto [name, value] :
       {std::pair{"SCREEN_W", pattern.width()}, {"SCREEN_H", pattern.height()}}) {
    probe.replace(probe.find(name), std::string(name).size(), std::to_string(value));
  }
  for (auto at = probe.find("PEER"); at != std::string::npos; at = probe.find("PEER", at)) {
    probe.replace(at, 4, peer);
  }
  browser.evaluate(page, probe);
  std::vector<Changes> out;
  std::mt19937 random(7);
  std::uniform_int_distribution<int> gap(150, 350);
  for (const Content content : contents) {
    Changes figures;
    pattern.fillSquare(32, 32, 96, Rgb{40, 40, 40});
    std::this_thread::sleep_for(400ms);
    const auto lossesBefore = browser.evaluate(page, "probeLosses()");
    struct Seen {
      double drawnAt, drawnEnd;
      nlohmann::json seen, totals;
    };
    std::vector<Seen> seen;
    for (int i = 0; i < changes; ++i) {
      const bool bright = i % 2 == 0;
      browser.evaluate(page, std::string("(async () => { probe.totals = await probeTotals(); "
                                         "probe.want = '") +
                                 (bright ? "bright" : "dark") +
                                 "'; window.seen = new Promise((r) => probe.resolve = r); "
                                 "return true; })()");
      const double drawnAt = wallMs();
      if (content == Content::screen) pattern.paintScreen(unsigned(i + 1));
      if (content == Content::text) pattern.paintTextPages(unsigned(i + 1), 160);
      pattern.fillSquare(32, 32, 96, bright ? Rgb{240, 240, 240} : Rgb{40, 40, 40});
      const double drawnEnd = wallMs();
      auto shown = browser.evaluate(page, "window.seen", 10s);
      figures.ms.push_back(shown["at"].get<double>() - drawnAt);
      figures.late += shown.value("late", false) ? 1 : 0;
      // The frame that carried the change, and on the still screen after it
      // little else, once the browser's statistics are fresh.
      std::this_thread::sleep_for(100ms);
      auto totals =
          browser.evaluate(page,
                           "probeTotals().then((t) => { const d = {}; "
                           "for (const k in t) d[k] = t[k] - probe.totals[k]; return d; })");
      figures.kb.push_back(totals.value("bytesReceived", 0.0) / 1000);
      seen.push_back({drawnAt, drawnEnd, std::move(shown), std::move(totals)});
      std::this_thread::sleep_for(std::chrono::milliseconds(gap(random)));
    }
    const auto trace = agent.lines();
    // The sender adds a random offset to every RTP time stamp: learn it from
    // the frames that left last before each change arrived, where most agree.
    std::map<std::uint32_t, int> offsets;
    for (const auto& one : seen) {
      const double received = one.seen.value("received", 0.0);
      const double rtp = one.seen.value("rtp", -1.0);
      const std::string* last = nullptr;
      for (const auto& line : trace) {
        if (line.find("[frame] encoded ") != std::string::npos &&
            field(line, "queued") <= received) {
          last = &line;
        }
      }
      if (last && rtp >= 0) ++offsets[std::uint32_t(rtp) - std::uint32_t(field(*last, "rtp"))];
    }
    const auto offset = std::max_element(offsets.begin(), offsets.end(),
                                         [](auto& a, auto& b) { return a.second < b.second; });
    // A change that took longer than the repeat after a change allows: the
    // trace around it, to see where it waited (the first three).
    int told = 0;
    for (const auto& one : seen) {
      const double at = one.seen["at"].get<double>();
      if (at - one.drawnAt < 300 || ++told > 3) continue;
      std::printf("%s change shown after %.0f ms; the frame trace from 20 ms before it:\n",
                  nameOf(content), at - one.drawnAt);
      for (const auto& line : trace) {
        double when = field(line, "read_at");
        if (std::isnan(when)) when = field(line, "pushed");
        if (when >= one.drawnAt - 20 && when <= at) {
          std::printf("  %+8.1f %s\n", when - one.drawnAt, line.c_str());
        }
      }
    }
    for (const auto& one : seen) {
      if (offset == offsets.end()) break;
      if (auto stages =
              stagesOf(one.drawnAt, one.drawnEnd, one.seen, one.totals, trace, offset->first)) {
        figures.stages.emplace_back(one.seen["at"].get<double>() - one.drawnAt, *stages);
      }
    }
    std::sort(figures.stages.begin(), figures.stages.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    const auto lossesAfter = browser.evaluate(page, "probeLosses()");
    for (const char* key : {"lost", "nacks", "plis", "keyFrames"}) {
      figures.losses[key] = lossesAfter[key].get<int>() - lossesBefore[key].get<int>();
    }
    std::sort(figures.ms.begin(), figures.ms.end());
    std::sort(figures.kb.begin(), figures.kb.end());
    out.push_back(std::move(figures));
  }
  pattern.show({Rgb{40, 40, 40}, Rgb{40, 40, 40}, Rgb{40, 40, 40}, Rgb{40, 40, 40}});
  return out;
}

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

// Covers the screen with small squares of random colours, over and over: far
// more than a 4 Mbit/s link carries at 30 frames per second.
void keepBusy(zul::test::ScreenPattern& pattern, double seconds) {
  std::mt19937 random(11);
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < until) {
    for (int i = 0; i < 200; ++i) {
      const auto bits = random();
      pattern.fillSquare(
          int(random() % unsigned(pattern.width() - 32)),
          int(random() % unsigned(pattern.height() - 32)), 32,
          Rgb{std::uint8_t(bits), std::uint8_t(bits >> 8), std::uint8_t(bits >> 16)});
    }
  }
}

int waitForPort(ChildProcess& agent) {
  while (auto line = agent.readStdoutLine(60s)) {
    const auto at = line->find("http://");
    if (at != std::string::npos) return std::stoi(line->substr(line->rfind(':') + 1));
  }
  return -1;
}

struct Figures {
  std::string size;
  std::vector<Changes> changes;  // one per Content
  double decodedDuringChanges = 0;
  int width = 0, height = 0;
  double movingFps = 0;
  double agentCpuPerFrameMs = 0;
  int movingFrames = 0;
  double agentCoreShare = 0;
  double ffmpegCpuPerFrameMs = 0;
  std::string rateLines;    // the agent's words on lowering or raising its frame rate
  std::string busyDecoded;  // a screen busier than the link: what the phone gets
  double busyFps = 0;
  double busyKbps = 0;
};

Figures measure(int screenWidth, int screenHeight, int changes, const char* agentPath,
                const char* maxFps, bool netem) {
  Figures figures;
  figures.size = std::to_string(screenWidth) + "x" + std::to_string(screenHeight);
  zul::test::XvfbServer xvfb(screenWidth, screenHeight);
  zul::test::ScreenPattern pattern(xvfb.display());
  pattern.show({Rgb{40, 40, 40}, Rgb{40, 40, 40}, Rgb{40, 40, 40}, Rgb{40, 40, 40}});

  std::optional<zul::test::ThrottledLink> link;
  if (netem) {
    std::string why;
    link = zul::test::ThrottledLink::make("4mbit", 25, &why);
    if (!link) throw std::runtime_error(why);
    std::printf("%s: agent in a network namespace, each end shaped by tc %s\n",
                figures.size.c_str(), link->shaping().c_str());
  }
  ChildProcess::Options options;
  options.env = {{"DISPLAY", xvfb.display()},
                 {"ZUL_DEMO_SECONDS", "900"},
                 {"ZUL_DEMO_PORT", "0"},
                 {"ZUL_FRAME_TRACE", "1"}};
  if (maxFps) options.env["ZUL_MAX_FPS"] = maxFps;
  options.captureStdout = true;
  std::vector<std::string> command = {agentPath, "--phone-demo"};
  ChildProcess agent(link ? link->wrap(command) : command, options);
  const int port = waitForPort(agent);
  if (port <= 0) throw std::runtime_error("the demo announced no port");

  HeadlessChromium browser;
  const std::string host = link ? zul::test::ThrottledLink::insideAddress : "127.0.0.1";
  const std::string page = browser.openPage("http://" + host + ":" + std::to_string(port) + "/");
  const std::string decoded = R"js((async () => {
    if (typeof pc === "undefined") return 0;
    let n = 0;
    (await pc.getStats()).forEach((s) => { if (s.type === "inbound-rtp") n = s.framesDecoded || 0; });
    return n;
  })())js";
  for (int i = 0; i < 600 && browser.evaluate(page, decoded).get<int>() < 10; ++i) {
    std::this_thread::sleep_for(100ms);
  }
  // Under a throttle the bandwidth estimate needs a while to settle.
  if (link) keepMoving(pattern, 10);
  const int framesBefore = browser.evaluate(page, decoded).get<int>();
  const auto started = std::chrono::steady_clock::now();
  figures.changes = timeChanges(browser, page, pattern, changes, "pc", agent);
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
  figures.decodedDuringChanges =
      (browser.evaluate(page, decoded).get<int>() - framesBefore) / seconds;

  // A screen that never stops moving: what the phone decodes, and what each
  // streamed frame costs the agent.
  constexpr double movingSeconds = 6;
  const int movingBefore = browser.evaluate(page, decoded).get<int>();
  const double agentCpuBefore = cpuSecondsOf(agent.pid());
  const auto movingStarted = std::chrono::steady_clock::now();
  keepMoving(pattern, movingSeconds);
  const double movingElapsed =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - movingStarted).count();
  const double agentCpu = cpuSecondsOf(agent.pid()) - agentCpuBefore;
  figures.movingFrames = browser.evaluate(page, decoded).get<int>() - movingBefore;
  const auto view = browser.evaluate(page,
                                     "(() => { const v = document.getElementById('video'); "
                                     "return { width: v.videoWidth, height: v.videoHeight }; })()");
  figures.width = view["width"].get<int>();
  figures.height = view["height"].get<int>();
  figures.movingFps = figures.movingFrames / movingElapsed;
  figures.agentCpuPerFrameMs =
      figures.movingFrames > 0 ? agentCpu * 1000 / figures.movingFrames : 0.0;
  figures.agentCoreShare = agentCpu * 100 / movingElapsed;

  // A screen busier than the link: the size must stay, the rate gives way.
  {
    const std::string received = R"js((async () => {
      let n = 0, bytes = 0;
      (await pc.getStats()).forEach((s) => {
        if (s.type === "inbound-rtp") { n = s.framesDecoded || 0; bytes = s.bytesReceived || 0; }
      });
      const v = document.getElementById("video");
      return { frames: n, bytes: bytes, size: v.videoWidth + "x" + v.videoHeight };
    })())js";
    constexpr double busySeconds = 8;
    keepBusy(pattern, 3);  // the rate control settles first
    const auto before = browser.evaluate(page, received);
    const auto busyStarted = std::chrono::steady_clock::now();
    keepBusy(pattern, busySeconds);
    const double elapsed =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - busyStarted).count();
    const auto after = browser.evaluate(page, received);
    figures.busyDecoded = after["size"].get<std::string>();
    figures.busyFps = (after["frames"].get<double>() - before["frames"].get<double>()) / elapsed;
    figures.busyKbps =
        (after["bytes"].get<double>() - before["bytes"].get<double>()) * 8 / 1000 / elapsed;
  }

  // The reference: ffmpeg grabbing and encoding the same moving screen.
  const int referenceFps = maxFps ? std::max(1, std::atoi(maxFps)) : 60;
  const std::string ffmpeg =
      "ffmpeg -hide_banner -nostats -loglevel error -f x11grab -framerate " +
      std::to_string(referenceFps) + " -video_size " + figures.size + " -i " + xvfb.display() +
      " -t " + std::to_string(int(movingSeconds)) +
      " -c:v libx264 -preset ultrafast -tune zerolatency -profile:v baseline -pix_fmt yuv420p"
      " -f null - >/dev/null 2>&1";
  const double referenceCpuBefore = childrenCpuSeconds();
  std::thread reference([&] { (void)std::system(ffmpeg.c_str()); });
  keepMoving(pattern, movingSeconds + 1);
  reference.join();
  figures.ffmpegCpuPerFrameMs =
      (childrenCpuSeconds() - referenceCpuBefore) * 1000 / (movingSeconds * referenceFps);
  for (const auto& line : agent.lines()) {
    if (line.find("video: ") != std::string::npos) figures.rateLines += "           " + line + "\n";
  }
  return figures;
}

// The same changes through the real agent: the development rendezvous
// server, the agent paired with the development phone page, in session.
std::vector<Changes> measureAgent(int screenWidth, int screenHeight, int changes,
                                  const char* agentPath, const char* maxFps,
                                  std::string& firstSecond) {
  namespace fs = std::filesystem;
  zul::test::XvfbServer xvfb(screenWidth, screenHeight);
  zul::test::ScreenPattern pattern(xvfb.display());
  pattern.show({Rgb{40, 40, 40}, Rgb{40, 40, 40}, Rgb{40, 40, 40}, Rgb{40, 40, 40}});
  pattern.paintTextPages(1000, 160);  // a first picture with detail to show
  const fs::path home = fs::temp_directory_path() / ("zul-bench-" + std::to_string(::getpid()));
  fs::remove_all(home);
  fs::create_directories(home / "home");
  struct Cleanup {
    fs::path path;
    ~Cleanup() { fs::remove_all(path); }
  } cleanup{home};

  ChildProcess server({"node", ZUL_RENDEZVOUS_SERVER, "--dev", "--port", "0"},
                      ChildProcess::Options{.captureStdout = true});
  const auto listening = server.waitForLine("listening on", 30s);
  if (!listening) throw std::runtime_error("the rendezvous server did not start");
  const std::string port = listening->substr(listening->rfind(':') + 1);

  ChildProcess::Options options;
  options.env = {{"DISPLAY", xvfb.display()},
                 {"ZUL_SECRET_BACKEND", "file"},
                 {"XDG_DATA_HOME", home.string()},
                 {"HOME", (home / "home").string()},
                 {"ZUL_SIGNALING_URL", "http://localhost:" + port},
                 {"ZUL_FRAME_TRACE", "1"}};
  if (maxFps) options.env["ZUL_MAX_FPS"] = maxFps;
  options.unsetEnv = {"DBUS_SESSION_BUS_ADDRESS", "ZUL_DEMO_SECONDS", "ZUL_DESKTOP"};
  options.captureStdout = true;
  ChildProcess agent({agentPath, "--real-agent"}, options);
  const auto link = agent.waitForLine("zul://pair?payload=", 60s);
  if (!link || !agent.waitForLine("connected to the server", 60s)) {
    throw std::runtime_error("the agent did not offer pairing: " + agent.tail());
  }

  HeadlessChromium browser;
  const std::string page = browser.openPage("http://localhost:" + port + "/phone/");
  if (!browser.waitFor(page, "document.body?.dataset.ready === '1'", 60s)) {
    throw std::runtime_error("the phone page did not load");
  }
  browser.evaluate(page, "zulPhone.pair(" + nlohmann::json(*link).dump() +
                             ", ['view', 'control']).then(() => true)");
  browser.evaluate(page, "zulPhone.connect({}).then(() => true)");
  // The first second of video on a still screen of text: how many key
  // frames and bytes made the first picture, and how sharp the last one is
  // (the quantizer of the frames decoded since the previous look).
  const std::string firstStats = R"js((async () => {
    const out = { keyFrames: 0, frames: 0, bytes: 0, qp: 0 };
    (await zulPhone.state.session.pc.getStats()).forEach((s) => {
      if (s.type === "inbound-rtp" && s.kind === "video") {
        out.keyFrames = s.keyFramesDecoded || 0; out.frames = s.framesDecoded || 0;
        out.bytes = s.bytesReceived || 0;
        const last = window.firstLook || { qpSum: 0, frames: 0 };
        out.qp = (s.qpSum - last.qpSum) / Math.max(1, out.frames - last.frames);
        window.firstLook = { qpSum: s.qpSum || 0, frames: out.frames };
      }
    });
    return out;
  })())js";
  for (int second = 1; second <= 3; second += 2) {
    std::this_thread::sleep_for(std::chrono::seconds(second == 1 ? 1 : 2));
    const auto first = browser.evaluate(page, firstStats);
    firstSecond += (second == 1 ? "" : "; in 3 s: ") +
                   std::to_string(first["keyFrames"].get<int>()) + " key frames of " +
                   std::to_string(first["frames"].get<int>()) + " decoded, " +
                   std::to_string(int(first["bytes"].get<double>() / 1000)) + " kB, QP " +
                   std::to_string(int(first["qp"].get<double>()));
  }
  if (!browser.waitFor(page, "zulPhone.videoStats().then(s => s.framesDecoded > 10)", 60s)) {
    throw std::runtime_error("no video reached the phone: " + agent.tail());
  }
  return timeChanges(browser, page, pattern, changes, "zulPhone.state.session.pc", agent);
}

std::string loadNow() {
  std::ifstream in("/proc/loadavg");
  std::string one;
  in >> one;
  return one;
}

// Each step's median and 95th percentile over the traced changes, and the
// slowest change whole.
void printStages(const std::string& size, const char* through, const std::vector<Changes>& all) {
  std::printf("%-10s %-6s %-13s %-5s", "", through, "steps (ms)", "");
  for (const char* name : stageNames) std::printf(" %5s", name);
  std::printf(" | %6s %5s | %5s %5s %5s %5s | %4s %5s %5s\n", "drops", "kB", "jbuf", "proc", "asm",
              "dec", "qp", "kbps", "bwe");
  for (std::size_t k = 0; k < all.size(); ++k) {
    const auto& stages = all[k].stages;
    if (stages.empty()) {
      std::printf("%-10s %-6s %-13s (no frame trace)\n", size.c_str(), through,
                  nameOf(contents[k]));
      continue;
    }
    auto row = [&](const char* label, auto pick) {
      std::printf("%-10s %-6s %-13s %-5s", size.c_str(), through, nameOf(contents[k]), label);
      for (std::size_t i = 0; i < stageCount; ++i)
        std::printf(" %5.1f", pick([i](const ChangeStages& c) { return c.ms[i]; }));
      std::printf(" | %6.0f %5.0f |", pick([](const ChangeStages& c) { return double(c.dropped); }),
                  pick([](const ChangeStages& c) { return c.frameKb; }));
      for (std::size_t i = 0; i < std::size(totalNames); ++i) {
        std::printf(" %5.1f", pick([i](const ChangeStages& c) { return c.totalsMs[i]; }));
      }
      std::printf(" | %4.0f %5.0f %5.0f\n", pick([](const ChangeStages& c) { return c.qp; }),
                  pick([](const ChangeStages& c) { return c.kbps; }),
                  pick([](const ChangeStages& c) { return c.bwe; }));
    };
    auto quantile = [&](double q) {
      return [&stages, q](auto get) {
        std::vector<double> v;
        for (const auto& [ms, c] : stages) v.push_back(get(c));
        std::sort(v.begin(), v.end());
        return Changes::at(v, q);
      };
    };
    row("mid", [&](auto get) { return get(stages[stages.size() / 2].second); });
    row("p50", quantile(0.5));
    row("p95", quantile(0.95));
    char worst[16];
    std::snprintf(worst, sizeof worst, "%.0f", stages.back().first);
    row(worst, [&](auto get) { return get(stages.back().second); });
  }
}

void printChanges(const std::string& size, const char* through, const std::vector<Changes>& all) {
  for (std::size_t k = 0; k < all.size(); ++k) {
    const Changes& c = all[k];
    std::printf("%-10s %-6s %-13s %7.1f %7.1f %7.1f | %7.1f %7.1f %7.1f | %d/%d/%d/%d | %d\n",
                size.c_str(), through, nameOf(contents[k]), Changes::at(c.ms, 0.5),
                Changes::at(c.ms, 0.95), c.ms.empty() ? 0 : c.ms.back(), Changes::at(c.kb, 0.5),
                Changes::at(c.kb, 0.95), c.kb.empty() ? 0 : c.kb.back(), c.losses.value("lost", 0),
                c.losses.value("nacks", 0), c.losses.value("plis", 0),
                c.losses.value("keyFrames", 0), c.late);
  }
}

}  // namespace

int main(int argc, char** argv) {
  int changes = 60;
  bool netem = false;
  std::string only;
  std::vector<std::pair<int, int>> sizes;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    int width = 0, height = 0;
    if (arg == "--changes" && i + 1 < argc) {
      changes = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--size" && i + 1 < argc &&
               std::sscanf(argv[++i], "%dx%d", &width, &height) == 2) {
      sizes.emplace_back(width, height);
    } else if (arg == "--netem") {
      netem = true;
    } else if (arg == "--only" && i + 1 < argc &&
               (std::string(argv[i + 1]) == "demo" || std::string(argv[i + 1]) == "agent")) {
      only = argv[++i];
    } else {
      std::fprintf(stderr,
                   "usage: %s [--changes N] [--size WxH]... [--netem] [--only demo|agent]\n",
                   argv[0]);
      return 2;
    }
  }
  if (sizes.empty()) sizes = {{1280, 720}, {1920, 1080}};
  const char* agentPath = std::getenv("ZUL_BENCH_AGENT");
  if (!agentPath || !*agentPath) agentPath = ZUL_AGENT_PATH;
  const char* maxFps = std::getenv("ZUL_MAX_FPS");
  if (!HeadlessChromium::available()) {
    std::printf("phone-demo latency: skipped (no %s)\n", HeadlessChromium::program);
    return 0;
  }
  std::printf("%s, %s fps asked, agent %s\n",
              netem ? "agent behind a 4 Mbit/s link" : "on loopback", maxFps ? maxFps : "default",
              agentPath);
  int failures = 0;
  std::vector<Figures> demo;
  std::printf("%-10s %-6s %-13s %7s %7s %7s | %7s %7s %7s | %s\n", "screen", "via", "change",
              "g2g p50", "p95", "max", "kB p50", "p95", "max", "lost/NACK/PLI/key | late");
  for (const auto& [width, height] : sizes) {
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    if (only != "agent") {
      try {
        const std::string load = loadNow();
        demo.push_back(measure(width, height, changes, agentPath, maxFps, netem));
        printChanges(size, "demo", demo.back().changes);
        printStages(size, "demo", demo.back().changes);
        std::printf("%-10s (load %s at the start, %s at the end)\n", "", load.c_str(),
                    loadNow().c_str());
      } catch (const std::exception& error) {
        std::printf("%s demo: failed: %s\n", size.c_str(), error.what());
        ++failures;
      }
      std::fflush(stdout);
    }
    if (only != "demo" && !netem) {
      try {
        const std::string load = loadNow();
        std::string firstSecond;
        const auto changed = measureAgent(width, height, changes, agentPath, maxFps, firstSecond);
        printChanges(size, "agent", changed);
        printStages(size, "agent", changed);
        std::printf(
            "%-10s (load %s at the start, %s at the end; the first second after connecting: "
            "%s)\n",
            "", load.c_str(), loadNow().c_str(), firstSecond.c_str());
      } catch (const std::exception& error) {
        std::printf("%s agent: failed: %s\n", size.c_str(), error.what());
        ++failures;
      }
      std::fflush(stdout);
    }
  }
  if (!demo.empty()) {
    std::printf("\n%-10s %7s | %-10s %7s %9s %9s %7s %7s\n", "screen", "fps", "decoded", "fps",
                "agent ms", "ffmpeg ms", "ratio", "core %");
    std::printf("%-10s %7s | %-10s %7s %9s %9s %7s %7s\n", "", "(chg)", "(moving)", "", "/frame",
                "/frame", "", "");
    for (const Figures& f : demo) {
      const std::string decoded = std::to_string(f.width) + "x" + std::to_string(f.height);
      std::printf("%-10s %7.1f | %-10s %7.1f %9.2f %9.2f %6.2fx %7.0f\n", f.size.c_str(),
                  f.decodedDuringChanges, decoded.c_str(), f.movingFps, f.agentCpuPerFrameMs,
                  f.ffmpegCpuPerFrameMs,
                  f.ffmpegCpuPerFrameMs > 0 ? f.agentCpuPerFrameMs / f.ffmpegCpuPerFrameMs : 0.0,
                  f.agentCoreShare);
      std::printf(
          "%-10s busy screen (random squares everywhere): decoded %s at %.1f fps, %.0f kbit/s\n",
          "", f.busyDecoded.c_str(), f.busyFps, f.busyKbps);
      std::printf("%s", f.rateLines.empty() ? "           the frame rate never changed\n"
                                            : f.rateLines.c_str());
    }
  }
  std::printf(
      "g2g: a change drawn on the screen until Chromium presents a decoded frame showing it\n"
      "(ms, %d changes of each kind); kB: video bytes received from the change until 100 ms\n"
      "after it showed (the frame that carried it, and little else on the still screen);\n"
      "lost/NACK/PLI/key: packets lost, NACKs and PLIs the phone sent, key frames it decoded;\n"
      "late: changes the page saw only when it looked again at the frame it had presented\n"
      "(within 20 ms; the canvas copy of the video can lag its presentation);\n"
      "via: the LAN phone demo or the real agent with a paired phone in session; fps: frames\n"
      "Chromium decoded per second; agent and ffmpeg: CPU time per streamed frame on the same\n"
      "moving screen (ffmpeg: x11grab + libx264 ultrafast/zerolatency/baseline at the same\n"
      "rate), ratio = agent / ffmpeg; core %%: the agent's share of one core while moving\n"
      "steps: where the time of a change went (the median change whole, each step's median and\n"
      "95th percentile, and the slowest change whole), from the agent's frame trace and the "
      "browser's figures of the frame\n"
      "that showed it; drops: frames the receiver dropped over the change; kB: that encoded frame; "
      "jbuf/proc/asm/dec: the receiver's totals\n"
      "over the change (jitterBufferDelay, totalProcessingDelay, totalAssemblyTime,\n"
      "totalDecodeTime; all frames decoded in it); qp: their mean quantizer; kbps: the\n"
      "encoder's target rate for the frame; bwe: the bandwidth estimate the library shared out\n",
      changes);
  return failures == 0 ? 0 : 1;
}
