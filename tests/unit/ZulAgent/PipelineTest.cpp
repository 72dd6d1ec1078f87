#include "ZulAgent/demo/PipelineTest.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>

#include "ZulCore/Media/FakeCaptureSource.h"
#include "ZulCore/Media/FakeH264Encoder.h"

namespace zul {
namespace {

using ::testing::ElementsAre;
using ::testing::StartsWith;

struct Lines {
  std::mutex mutex;
  std::vector<std::string> lines;
  LineSink sink() {
    return [this](std::string_view line) {
      std::lock_guard lock(mutex);
      lines.emplace_back(line);
    };
  }
};

// An encoder that never has output yet, or fails every frame.
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

CaptureOptions fastOptions() {
  auto options = pipelineCaptureOptions();
  options.framesPerSecond = 50;
  return options;
}

TEST(PipelineTest, FakePairPrintsFramesAndTotals) {
  FakeCaptureSource source;
  FakeH264Encoder encoder;
  Lines out;
  runPipelineTest(source, encoder, fastOptions(), pipelineEncoderSettings(false),
                  std::chrono::milliseconds(300), out.sink());
  ASSERT_GE(out.lines.size(), 4u);
  EXPECT_EQ(out.lines.front(), "encoder: fake-h264, hardware=false");
  EXPECT_EQ(out.lines[1], "frame #1: 13 bytes annexB, key=true");
  EXPECT_EQ(out.lines[2], "frame #2: 13 bytes annexB, key=false");
  const auto frames = out.lines.size() - 2;
  EXPECT_EQ(out.lines.back(), "stopped: " + std::to_string(frames) + " frame(s) encoded, " +
                                  std::to_string(13 * frames) + " total bytes");
}

TEST(PipelineTest, BufferingEncoderCountsNothingAndOnlyFirstFrameIsForced) {
  FakeCaptureSource source;
  StubEncoder encoder(StubEncoder::Behaviour::buffer);
  Lines out;
  runPipelineTest(source, encoder, fastOptions(), pipelineEncoderSettings(false),
                  std::chrono::milliseconds(200), out.sink());
  EXPECT_EQ(out.lines.front(), "encoder: stub, hardware=true");
  EXPECT_EQ(out.lines[1], "frame #1: encoder buffered it, no output yet");
  EXPECT_EQ(out.lines.back(), "stopped: 0 frame(s) encoded, 0 total bytes");
  ASSERT_GE(encoder.forced.size(), 2u);
  for (auto [sequence, force] : encoder.forced) EXPECT_EQ(force, sequence == 1);
}

TEST(PipelineTest, FailuresArePrintedNotThrown) {
  {
    FakeCaptureSource source;
    StubEncoder encoder(StubEncoder::Behaviour::fail);
    Lines out;
    runPipelineTest(source, encoder, fastOptions(), pipelineEncoderSettings(false),
                    std::chrono::milliseconds(100), out.sink());
    EXPECT_EQ(out.lines[1], "frame #1: encode failed: encodeFailed(-3)");
    EXPECT_EQ(out.lines.back(), "stopped: 0 frame(s) encoded, 0 total bytes");
  }
  {
    FakeCaptureSource source;
    StubEncoder encoder(StubEncoder::Behaviour::failConfigure);
    Lines out;
    runPipelineTest(source, encoder, fastOptions(), pipelineEncoderSettings(false),
                    std::chrono::milliseconds(100), out.sink());
    EXPECT_THAT(out.lines, ElementsAre("pipeline failed: sessionCreationFailed(-7)"));
  }
  {
    FakeCaptureSource source;
    source.start(fastOptions());  // already running: start fails
    FakeH264Encoder encoder;
    Lines out;
    runPipelineTest(source, encoder, fastOptions(), pipelineEncoderSettings(false),
                    std::chrono::milliseconds(100), out.sink());
    EXPECT_THAT(out.lines, ElementsAre(StartsWith("encoder: "), "pipeline failed: alreadyRunning"));
    source.stop();
  }
}

}  // namespace
}  // namespace zul
