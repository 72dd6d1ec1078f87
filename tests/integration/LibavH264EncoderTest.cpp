#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <set>
#include <sstream>
#include <thread>

#include "ZulPlatform/linux/encoder/H264AnnexB.h"
#include "ZulPlatform/linux/encoder/LibavH264Encoder.h"
#include "ZulPlatform/linux/x11/ScreenCaptureSource.h"
#include "support/ChildProcess.h"
#include "support/XvfbServer.h"
// Xlib last: its macros must not reach the headers above.
#include "integration/ScreenPainter.h"

namespace zul {
namespace {

using namespace std::chrono_literals;

std::string runAndRead(const std::string& command) {
  std::string output;
  if (FILE* pipe = ::popen(command.c_str(), "r")) {
    char buffer[4096];
    while (std::size_t n = std::fread(buffer, 1, sizeof buffer, pipe)) output.append(buffer, n);
    ::pclose(pipe);
  }
  return output;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> out;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) {
    if (!line.empty()) out.push_back(line);
  }
  return out;
}

// Frames captured from a screen with moving content, encoded as they come,
// decoded afterwards by FFmpeg's own tools.
TEST(LibavH264EncoderTest, CapturedStreamDecodesWithKeyFramesWhereForced) {
  if (!test::haveProgram("Xvfb") || !test::haveProgram("ffprobe")) {
    GTEST_SKIP() << "Xvfb or ffprobe is not installed";
  }
  test::XvfbServer server(1280, 720);
  test::ScreenPainter painter(server.display());
  std::atomic<bool> painting{true};
  std::thread mover([&] {
    test::ScreenPainter brush(server.display());
    for (int step = 0; painting; ++step) {
      brush.fill(0, 0, 1280, 720, 0x202040);
      brush.fill((step * 16) % 1200, 200 + (step * 7) % 300, 80, 80, 0xffc000);
      std::this_thread::sleep_for(15ms);
    }
  });

  constexpr int kFrames = 30;
  const std::set<std::int64_t> forced = {1, 16};
  LibavH264Encoder encoder;
  encoder.configure(VideoEncoderSettings{.codec = VideoCodec::h264,
                                         .width = 640,
                                         .height = 360,
                                         .framesPerSecond = 30,
                                         .bitrateKbps = 1500,
                                         .hardwareRequired = false,
                                         .lowLatency = true,
                                         .bFrames = 0,
                                         .hdrToSdr = true});
  std::mutex mutex;
  std::condition_variable done;
  std::vector<EncodedVideoFrame> encoded;
  std::vector<std::string> failures;
  ScreenCaptureSource source(server.display());
  source.setFrameReady([&](const CapturedFrame& frame) {
    std::optional<EncodedVideoFrame> unit;
    try {
      unit = encoder.encode(frame, forced.count(frame.sequence) > 0);
    } catch (const std::exception& error) {
      std::lock_guard lock(mutex);
      failures.push_back(error.what());
      return;
    }
    std::lock_guard lock(mutex);
    if (unit && encoded.size() < kFrames) encoded.push_back(std::move(*unit));
    done.notify_all();
  });
  source.start(CaptureOptions{.displayIndex = 0,
                              .width = 640,
                              .height = 360,
                              .framesPerSecond = 30,
                              .idleFramesPerSecond = 30,
                              .convertHdrToSdr = true});
  {
    std::unique_lock lock(mutex);
    done.wait_for(lock, 30s, [&] { return encoded.size() >= kFrames; });
  }
  source.stop();
  painting = false;
  mover.join();
  ASSERT_TRUE(failures.empty()) << failures.front();
  ASSERT_EQ(encoded.size(), std::size_t(kFrames));

  const auto path = std::filesystem::temp_directory_path() /
                    ("zul-capture-" + std::to_string(::getpid()) + ".h264");
  {
    std::ofstream out(path, std::ios::binary);
    for (const auto& unit : encoded) {
      out.write(reinterpret_cast<const char*>(unit.annexB.data()),
                std::streamsize(unit.annexB.size()));
    }
  }

  const auto stream = lines(runAndRead(
      "ffprobe -v error -select_streams v:0 -show_entries stream=codec_name,profile,width,height "
      "-of default=noprint_wrappers=1 '" +
      path.string() + "'"));
  EXPECT_NE(std::find(stream.begin(), stream.end(), "width=640"), stream.end());
  EXPECT_NE(std::find(stream.begin(), stream.end(), "height=360"), stream.end());
  const bool baseline =
      std::find(stream.begin(), stream.end(), "profile=Constrained Baseline") != stream.end() ||
      std::find(stream.begin(), stream.end(), "profile=Baseline") != stream.end();
  EXPECT_TRUE(baseline) << ::testing::PrintToString(stream);

  // The decoder's verdict on every frame: key frames exactly where we said,
  // and at least where forced.
  const auto frames =
      lines(runAndRead("ffprobe -v error -select_streams v:0 -show_entries "
                       "frame=key_frame,pict_type -of csv=p=0 '" +
                       path.string() + "'"));
  ASSERT_EQ(frames.size(), encoded.size()) << "the decoder lost frames";
  for (std::size_t i = 0; i < frames.size(); ++i) {
    const bool key = frames[i].rfind("1,", 0) == 0;
    EXPECT_EQ(key, encoded[i].isKeyFrame) << "frame " << i << ": " << frames[i];
    if (forced.count(encoded[i].sequence)) EXPECT_TRUE(key) << "frame " << i;
  }
  std::filesystem::remove(path);
}

}  // namespace
}  // namespace zul
