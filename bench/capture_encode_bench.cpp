// Capture -> convert -> encode on an Xvfb screen with moving content, ours
// (ScreenCaptureSource + LibavH264Encoder) against ffmpeg (x11grab + libx264,
// ultrafast, zerolatency, baseline) on the same screen in the same run.
//
//   zul-capture-encode-bench [--seconds N] [--size WxH]... [--fps N]
//
// --fps: the rate both pipelines are asked for (60 by default, the agent's).
//
// Figures per size: how soon a change on a still screen reaches the capture's
// consumer (median and p99); achieved frames per second, per-frame latency of capture
// (screen read + conversion to 4:2:0) and of encoding (median and p99), CPU
// time per frame of the pipeline's process and of the X server; then the
// ratios ours / ffmpeg. ffmpeg's command line reports its encode times
// (-benchmark_all) but not its capture times, so its capture latency is
// measured in-process with the same components it uses (libavdevice's
// x11grab, libswscale).

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <mutex>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "ZulPlatform/linux/capture/Nv12FrameSurface.h"
#include "ZulPlatform/linux/encoder/LibavH264Encoder.h"
#include "ZulPlatform/linux/x11/ScreenCaptureSource.h"

extern "C" {
#include <libavdevice/avdevice.h>
#include <libavformat/avformat.h>
#include <libswscale/swscale.h>
}

// Xlib last: its macros must not reach the headers above.
#include <X11/Xlib.h>

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

double ms(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

struct Percentiles {
  double median = 0, p99 = 0;
};
Percentiles percentiles(std::vector<double> values) {
  if (values.empty()) return {};
  std::sort(values.begin(), values.end());
  auto at = [&](double q) {
    return values[std::min(values.size() - 1, std::size_t(q * values.size()))];
  };
  return {at(0.5), at(0.99)};
}

double cpuSeconds(const rusage& usage) {
  return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}
double processCpuSeconds() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  return cpuSeconds(usage);
}
// User + system time of another process, from /proc.
double otherCpuSeconds(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string text((std::istreambuf_iterator<char>(stat)), {});
  auto close = text.rfind(')');
  if (close == std::string::npos) return 0;
  std::istringstream fields(text.substr(close + 2));
  std::string field;
  unsigned long long utime = 0, stime = 0;
  for (int i = 3; fields >> field; ++i) {
    if (i == 14) utime = std::stoull(field);
    if (i == 15) {
      stime = std::stoull(field);
      break;
    }
  }
  return double(utime + stime) / double(sysconf(_SC_CLK_TCK));
}

pid_t spawn(const std::vector<std::string>& argv, int stdoutFd = -1, int stderrFd = -1) {
  pid_t pid = fork();
  if (pid == 0) {
    int devnull = open("/dev/null", O_RDWR);
    dup2(devnull, 0);
    dup2(stdoutFd >= 0 ? stdoutFd : devnull, 1);
    dup2(stderrFd >= 0 ? stderrFd : devnull, 2);
    std::vector<char*> args;
    for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
    args.push_back(nullptr);
    execvp(args[0], args.data());
    _exit(127);
  }
  return pid;
}

void stopChild(pid_t pid) {
  if (pid <= 0) return;
  kill(pid, SIGTERM);
  waitpid(pid, nullptr, 0);
}

// A private Xvfb of the given size, on a display number it picks itself.
struct Xvfb {
  pid_t pid = -1;
  std::string display;
  Xvfb(int width, int height) {
    int fds[2];
    if (pipe(fds) != 0) throw std::runtime_error("pipe");
    const std::string screen = std::to_string(width) + "x" + std::to_string(height) + "x24";
    pid = spawn(
        {"Xvfb", "-displayfd", "1", "-screen", "0", screen, "-nolisten", "tcp", "-ac", "-noreset"},
        fds[1]);
    ::close(fds[1]);
    char buffer[32] = {};
    std::size_t got = 0;
    while (got < sizeof buffer - 1) {
      ssize_t n = read(fds[0], buffer + got, sizeof buffer - 1 - got);
      if (n <= 0 || std::memchr(buffer, '\n', got + n)) {
        got += n > 0 ? n : 0;
        break;
      }
      got += n;
    }
    ::close(fds[0]);
    if (got == 0) throw std::runtime_error("Xvfb did not start");
    display = ":" + std::to_string(std::atoi(buffer));
  }
  ~Xvfb() { stopChild(pid); }
};

// The moving content: full-width bands scrolling down and boxes moving across,
// repainted at 60 Hz, so every captured frame differs over most of the screen.
int paint(const std::string& displayName, int width, int height) {
  Display* display = XOpenDisplay(displayName.c_str());
  if (!display) return 1;
  Window root = DefaultRootWindow(display);
  GC gc = XCreateGC(display, root, 0, nullptr);
  for (int step = 0;; ++step) {
    for (int band = 0; band < 8; ++band) {
      const int y = (band * height / 8 + step * 4) % height;
      XSetForeground(display, gc, 0x101010ul * ((band + step / 30) % 16) + 0x200000ul * band);
      XFillRectangle(display, root, gc, 0, y, unsigned(width), unsigned(height / 8));
    }
    for (int box = 0; box < 6; ++box) {
      XSetForeground(display, gc, 0xff8000ul ^ (0x3355aaul * box));
      const int x = (step * (5 + box * 3) + box * 200) % width;
      XFillRectangle(display, root, gc, x, box * height / 6, 120, 90);
    }
    XSync(display, False);
    std::this_thread::sleep_for(16ms);
  }
}

// The frame rate both pipelines are asked for.
int askedFps = 60;

struct Figures {
  std::string label;
  double fps = 0;
  Percentiles capture, encode;
  double cpuMsPerFrame = 0;
  double serverMsPerFrame = 0;
  long frames = 0;
  std::string note;
};

std::int64_t bitrateFor(int width, int height) {
  return width * height >= 1920 * 1080 ? 8000 : 4000;
}

Figures runOurs(const Xvfb& server, int width, int height, int seconds) {
  zul::LibavH264Encoder encoder;
  encoder.configure(zul::VideoEncoderSettings{.codec = zul::VideoCodec::h264,
                                              .width = width,
                                              .height = height,
                                              .framesPerSecond = askedFps,
                                              .bitrateKbps = bitrateFor(width, height),
                                              .hardwareRequired = false,
                                              .lowLatency = true,
                                              .bFrames = 0});
  std::mutex mutex;
  std::vector<double> captureMs, encodeMs;
  long frames = 0;
  zul::ScreenCaptureSource source(server.display);
  source.setOnCaptureTiming([&](std::chrono::nanoseconds read, std::chrono::nanoseconds convert) {
    std::lock_guard lock(mutex);
    captureMs.push_back(ms(read + convert));
  });
  source.setFrameReady([&](const zul::CapturedFrame& frame) {
    const auto start = Clock::now();
    auto unit = encoder.encode(frame, frame.sequence == 1);
    const auto took = Clock::now() - start;
    std::lock_guard lock(mutex);
    encodeMs.push_back(ms(took));
    frames += unit ? 1 : 0;
  });
  const double cpuBefore = processCpuSeconds();
  const double serverBefore = otherCpuSeconds(server.pid);
  source.start(zul::CaptureOptions{.displayIndex = 0,
                                   .width = width,
                                   .height = height,
                                   .framesPerSecond = askedFps,
                                   .idleFramesPerSecond = askedFps});
  // Counted from the first frame, as ffmpeg's -t counts from its first.
  const auto started = Clock::now();
  std::this_thread::sleep_for(std::chrono::seconds(seconds));
  source.stop();
  const double wall = std::chrono::duration<double>(Clock::now() - started).count();
  Figures figures;
  figures.label = "zul " + source.name() + "+" + encoder.name();
  const auto stats = source.statistics();
  figures.note = std::to_string(stats.captured) + " screen reads, " +
                 std::to_string(stats.delivered) + " frames delivered, " +
                 std::to_string(stats.dropped) + " dropped while the encoder was busy";
  std::lock_guard lock(mutex);
  figures.frames = frames;
  figures.fps = frames / wall;
  figures.capture = percentiles(captureMs);
  figures.encode = percentiles(encodeMs);
  figures.cpuMsPerFrame = frames ? (processCpuSeconds() - cpuBefore) * 1000 / frames : 0;
  figures.serverMsPerFrame =
      frames ? (otherCpuSeconds(server.pid) - serverBefore) * 1000 / frames : 0;
  return figures;
}

// How soon a change drawn on a still screen reaches the capture's consumer:
// a square flips between dark and bright, and the frame whose pixels show it
// is timed against the moment the X server had drawn it.
Percentiles changeToFrame(const Xvfb& server, int changes) {
  Display* display = XOpenDisplay(server.display.c_str());
  if (!display) throw std::runtime_error("cannot open " + server.display);
  const Window root = DefaultRootWindow(display);
  GC gc = XCreateGC(display, root, 0, nullptr);
  std::mutex mutex;
  std::condition_variable seen;
  int want = -1;  // 0: dark, 1: bright, -1: nothing asked
  Clock::time_point seenAt;
  zul::ScreenCaptureSource source(server.display);
  source.setFrameReady([&](const zul::CapturedFrame& frame) {
    auto* surface = dynamic_cast<zul::Nv12FrameSurface*>(frame.nativeSurface.get());
    if (!surface) return;
    const int luma = surface->luma()[48 * surface->lumaStride() + 48];
    std::lock_guard lock(mutex);
    if (want >= 0 && (luma > 128) == (want == 1)) {
      want = -1;
      seenAt = Clock::now();
      seen.notify_all();
    }
  });
  source.start(zul::CaptureOptions{
      .displayIndex = 0, .width = 0, .height = 0, .framesPerSecond = askedFps, .idleFramesPerSecond = 2});
  std::vector<double> latencies;
  for (int i = 0; i < changes; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(120 + (i * 37) % 150));
    {
      std::lock_guard lock(mutex);
      want = i % 2 == 0 ? 1 : 0;
    }
    XSetForeground(display, gc, i % 2 == 0 ? 0xf0f0f0ul : 0x202020ul);
    XFillRectangle(display, root, gc, 32, 32, 64, 64);
    XSync(display, False);
    const auto drawnAt = Clock::now();
    std::unique_lock lock(mutex);
    if (seen.wait_for(lock, 5s, [&] { return want < 0; })) {
      latencies.push_back(ms(seenAt - drawnAt));
    }
  }
  source.stop();
  XFreeGC(display, gc);
  XCloseDisplay(display);
  return percentiles(latencies);
}

// ffmpeg's own capture stage, in-process: x11grab reads, swscale converts to
// yuv420p, paced at 30 per second by us (x11grab asked for a rate it never
// waits for, so only the work is timed).
Percentiles ffmpegCaptureLatency(const Xvfb& server, int width, int height, int seconds) {
  avdevice_register_all();
  const AVInputFormat* x11grab = av_find_input_format("x11grab");
  if (!x11grab) return {};
  AVDictionary* options = nullptr;
  av_dict_set(&options, "framerate", "1000", 0);
  av_dict_set(&options, "video_size",
              (std::to_string(width) + "x" + std::to_string(height)).c_str(), 0);
  av_dict_set(&options, "draw_mouse", "1", 0);
  AVFormatContext* input = nullptr;
  const int status = avformat_open_input(&input, server.display.c_str(), x11grab, &options);
  av_dict_free(&options);
  if (status < 0) return {};
  AVCodecParameters* parameters = input->streams[0]->codecpar;
  SwsContext* scaler =
      sws_getContext(parameters->width, parameters->height, AVPixelFormat(parameters->format),
                     width, height, AV_PIX_FMT_YUV420P, SWS_BICUBIC, nullptr, nullptr, nullptr);
  std::vector<std::uint8_t> planes(std::size_t(width) * height * 3 / 2);
  std::uint8_t* dst[3] = {planes.data(), planes.data() + width * height,
                          planes.data() + width * height * 5 / 4};
  int dstStride[3] = {width, width / 2, width / 2};
  std::vector<double> latency;
  AVPacket* packet = av_packet_alloc();
  auto next = Clock::now();
  const auto end = next + std::chrono::seconds(seconds);
  while (Clock::now() < end) {
    std::this_thread::sleep_until(next);
    next += 33333us;
    const auto start = Clock::now();
    if (av_read_frame(input, packet) < 0) break;
    const std::uint8_t* src[1] = {packet->data};
    int srcStride[1] = {parameters->width * 4};
    sws_scale(scaler, src, srcStride, 0, parameters->height, dst, dstStride);
    latency.push_back(ms(Clock::now() - start));
    av_packet_unref(packet);
  }
  av_packet_free(&packet);
  sws_freeContext(scaler);
  avformat_close_input(&input);
  return percentiles(latency);
}

Figures runFfmpeg(const Xvfb& server, int width, int height, int seconds) {
  Figures figures;
  figures.label = "ffmpeg x11grab+libx264";
  char logPath[] = "/tmp/zul-bench-ffmpeg-XXXXXX";
  int logFd = mkstemp(logPath);
  const std::string size = std::to_string(width) + "x" + std::to_string(height);
  const double serverBefore = otherCpuSeconds(server.pid);
  const auto started = Clock::now();
  pid_t pid = spawn({"ffmpeg",       "-nostdin",
                     "-hide_banner", "-benchmark_all",
                     "-f",           "x11grab",
                     "-framerate",   std::to_string(askedFps),
                     "-video_size",  size,
                     "-i",           server.display,
                     "-t",           std::to_string(seconds),
                     "-fps_mode",    "passthrough",
                     "-pix_fmt",     "yuv420p",
                     "-c:v",         "libx264",
                     "-preset",      "ultrafast",
                     "-tune",        "zerolatency",
                     "-profile:v",   "baseline",
                     "-b:v",         std::to_string(bitrateFor(width, height)) + "k",
                     "-g",           "300",
                     "-f",           "h264",
                     "-y",           "/dev/null"},
                    -1, logFd);
  int status = 0;
  rusage usage{};
  wait4(pid, &status, 0, &usage);
  const double wall = std::chrono::duration<double>(Clock::now() - started).count();
  const double serverCpu = otherCpuSeconds(server.pid) - serverBefore;
  ::close(logFd);

  // -benchmark_all: "decode_video" lines for each grabbed frame (one per
  // decoder call, so two per frame), then the "encode_video" lines of its
  // encoding (submit and collect), in µs. The frame count is ffmpeg's own
  // last "frame=" figure.
  std::ifstream log(logPath);
  std::vector<double> encodeMs;
  double current = 0;
  bool inFrame = false;
  long grabbed = 0;
  std::string line;
  auto lastFrameFigure = [&](const std::string& text) {
    const std::size_t at = text.rfind("frame=");
    long value = 0;
    if (at != std::string::npos && std::sscanf(text.c_str() + at, "frame= %ld", &value) == 1) {
      grabbed = value;
    }
  };
  auto flush = [&] {
    if (inFrame) encodeMs.push_back(current / 1000);
    current = 0;
    inFrame = false;
  };
  while (std::getline(log, line, '\n')) {
    lastFrameFigure(line);
    for (std::size_t at = line.find("bench:"); at != std::string::npos;
         at = line.find("bench:", at + 1)) {
      long long user = 0, sys = 0, real = 0;
      char task[32] = {};
      if (std::sscanf(line.c_str() + at, "bench: %lld user %lld sys %lld real %31s", &user, &sys,
                      &real, task) != 4) {
        continue;
      }
      if (std::strcmp(task, "decode_video") == 0) {
        flush();
      } else if (std::strcmp(task, "encode_video") == 0) {
        current += double(real);
        inFrame = true;
      }
    }
  }
  flush();
  unlink(logPath);
  if (grabbed == 0) grabbed = long(encodeMs.size());
  figures.frames = grabbed;
  // ffmpeg's wall time includes its start-up; its own -t bounds the capture.
  figures.fps = grabbed / std::min(wall, double(seconds));
  figures.encode = percentiles(encodeMs);
  figures.cpuMsPerFrame = grabbed ? cpuSeconds(usage) * 1000 / grabbed : 0;
  figures.serverMsPerFrame = grabbed ? serverCpu * 1000 / grabbed : 0;
  figures.capture = ffmpegCaptureLatency(server, width, height, std::min(seconds, 5));
  return figures;
}

void print(const std::string& size, const Figures& f) {
  std::printf("%-10s %-36s %6.1f %8.2f %8.2f %8.2f %8.2f %10.2f %9.2f\n", size.c_str(),
              f.label.c_str(), f.fps, f.capture.median, f.capture.p99, f.encode.median,
              f.encode.p99, f.cpuMsPerFrame, f.serverMsPerFrame);
}

double ratio(double ours, double theirs) { return theirs > 0 ? ours / theirs : 0; }

}  // namespace

int main(int argc, char** argv) {
  if (argc == 5 && std::string(argv[1]) == "--paint") {
    return paint(argv[2], std::atoi(argv[3]), std::atoi(argv[4]));
  }
  int seconds = 10;
  std::vector<std::pair<int, int>> sizes;
  for (int i = 1; i < argc; ++i) {
    std::string arg = argv[i];
    if (arg == "--seconds" && i + 1 < argc) {
      seconds = std::max(1, std::atoi(argv[++i]));
    } else if (arg == "--size" && i + 1 < argc) {
      int w = 0, h = 0;
      if (std::sscanf(argv[++i], "%dx%d", &w, &h) == 2 && w > 0 && h > 0) sizes.emplace_back(w, h);
    } else if (arg == "--fps" && i + 1 < argc) {
      askedFps = std::clamp(std::atoi(argv[++i]), 1, 240);
    } else {
      std::fprintf(stderr, "usage: %s [--seconds N] [--size WxH]... [--fps N]\n", argv[0]);
      return 2;
    }
  }
  if (sizes.empty()) sizes = {{1280, 720}, {1920, 1080}};
  std::setvbuf(stdout, nullptr, _IONBF, 0);
  std::printf(
      "capture -> convert -> encode, %d fps asked, %d s per pipeline, Xvfb with moving content\n",
      askedFps, seconds);
  std::printf("%-10s %-36s %6s %8s %8s %8s %8s %10s %9s\n", "size", "pipeline", "fps", "cap p50",
              "cap p99", "enc p50", "enc p99", "cpu ms/fr", "X ms/fr");

  std::vector<std::tuple<std::string, Figures, Figures>> results;
  for (auto [width, height] : sizes) {
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    try {
      Xvfb server(width, height);
      const Percentiles change = changeToFrame(server, 40);
      std::printf(
          "%-10s a change on a still screen reaches the consumer in %.1f ms (median), "
          "%.1f ms (p99)\n",
          size.c_str(), change.median, change.p99);
      pid_t painter = spawn({"/proc/self/exe", "--paint", server.display, std::to_string(width),
                             std::to_string(height)});
      std::this_thread::sleep_for(1s);
      Figures ours = runOurs(server, width, height, seconds);
      print(size, ours);
      std::printf("%-10s   (%s)\n", "", ours.note.c_str());
      Figures theirs = runFfmpeg(server, width, height, seconds);
      print(size, theirs);
      stopChild(painter);
      results.emplace_back(size, ours, theirs);
    } catch (const std::exception& error) {
      std::printf("%-10s failed: %s\n", size.c_str(), error.what());
    }
  }
  std::printf("ratios ours/ffmpeg (fps: higher is better; latency and CPU: lower is better)\n");
  std::printf("%-10s %6s %8s %8s %8s %8s %10s %9s\n", "size", "fps", "cap p50", "cap p99",
              "enc p50", "enc p99", "cpu/fr", "X/fr");
  for (const auto& [size, ours, theirs] : results) {
    std::printf("%-10s %6.2f %8.2f %8.2f %8.2f %8.2f %10.2f %9.2f\n", size.c_str(),
                ratio(ours.fps, theirs.fps), ratio(ours.capture.median, theirs.capture.median),
                ratio(ours.capture.p99, theirs.capture.p99),
                ratio(ours.encode.median, theirs.encode.median),
                ratio(ours.encode.p99, theirs.encode.p99),
                ratio(ours.cpuMsPerFrame, theirs.cpuMsPerFrame),
                ratio(ours.serverMsPerFrame, theirs.serverMsPerFrame));
  }
  return 0;
}
