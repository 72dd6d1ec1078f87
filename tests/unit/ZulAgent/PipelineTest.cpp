#include "ZulAgent/demo/PipelineTest.h"

#include <gtest/gtest.h>

#include <mutex>

#include "ZulCore/Media/FakeCaptureSource.h"
#include "ZulCore/Media/FakeH264Encoder.h"

namespace zul {
namespace {

// An encoder that never has output yet, or fails every frame or at once.
class StubEncoder : public VideoEncoder {
 public:
  enum class Behaviour { buffer, fail, failConfigure };
  explicit StubEncoder(Behaviour behaviour) : behaviour_(behaviour) {}
  std::string name() const override { return "stub"; }
  bool isHardwareAccelerated() const override { return true; }
  void configure(const VideoEncoderSettings&) override {
    if (behaviour_ == Behaviour::failConfigure) throw MediaError::sessionCreationFailed(-7);
  }
  std::optional<EncodedVideoFrame> encode(const CapturedFrame& frame, bool force) override {
    std::lock_guard lock(mutex_);
    forced.emplace_back(frame.sequence, force);
    if (behaviour_ == Behaviour::fail) throw MediaError::encodeFailed(-3);
    return std::nullopt;
  }
  void setBitrate(std::int64_t) override {}
  std::mutex mutex_;
  std::vector<std::pair<std::int64_t, bool>> forced;

 private:
  Behaviour behaviour_;
};

std::vector<std::string> run(VideoEncoder& encoder, bool sourceBusy = false) {
  FakeCaptureSource source;
  auto options = pipelineCaptureOptions();
  options.framesPerSecond = 50;
  if (sourceBusy) source.start(options);  // start fails
  std::vector<std::string> lines;
  std::mutex mutex;
  runPipelineTest(source, encoder, options, pipelineEncoderSettings(false),
                  std::chrono::milliseconds(200), [&](std::string_view line) {
                    std::lock_guard lock(mutex);
                    lines.emplace_back(line);
                  });
  if (sourceBusy) source.stop();
  return lines;
}

TEST(PipelineTest, PrintsEachFrameAndTheTotalsOrTheFailure) {
  // The fake pair's own output is the executable's (agent.pipelineOutput).
  FakeH264Encoder fake;
  using B = StubEncoder::Behaviour;
  StubEncoder buffering(B::buffer), failing(B::fail), unconfigurable(B::failConfigure);
  auto lines = run(buffering);
  EXPECT_EQ(lines[0], "encoder: stub, hardware=true");
  EXPECT_EQ(lines[1], "frame #1: encoder buffered it, no output yet");
  EXPECT_EQ(lines.back(), "stopped: 0 frame(s) encoded, 0 total bytes");
  ASSERT_GE(buffering.forced.size(), 2u);
  for (auto [sequence, force] : buffering.forced) EXPECT_EQ(force, sequence == 1) << sequence;

  lines = run(failing);
  EXPECT_EQ(lines[1], "frame #1: encode failed: encodeFailed(-3)");
  EXPECT_EQ(lines.back(), "stopped: 0 frame(s) encoded, 0 total bytes");
  EXPECT_EQ(run(unconfigurable),
            std::vector<std::string>{"pipeline failed: sessionCreationFailed(-7)"});
  EXPECT_EQ(run(fake, true), (std::vector<std::string>{"encoder: fake-h264, hardware=false",
                                                       "pipeline failed: alreadyRunning"}));
}

}  // namespace
}  // namespace zul
