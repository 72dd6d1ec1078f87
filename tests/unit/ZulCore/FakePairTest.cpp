#include <gtest/gtest.h>

#include <atomic>
#include <thread>

#include "ZulCore/Media/FakeCaptureSource.h"
#include "ZulCore/Media/FakeH264Encoder.h"

namespace zul {
namespace {

TEST(FakeCaptureSourceFrame, Nv12SizesAndGreyLevels) {
  struct Case {
    std::int64_t sequence, width, height;
    std::size_t bytes;
    std::uint8_t luma;
  };
  const Case cases[] = {
      {1, 960, 540, 777600, 17},
      {179, 16, 16, 384, 195},
      {180, 16, 16, 384, 16},
      {3, 3, 3, 13, 19},
  };
  for (const auto& c : cases) {
    auto frame = FakeCaptureSource::makeFrame(c.sequence, c.width, c.height, 4);
    ASSERT_EQ(frame.dataSize(), c.bytes) << c.sequence;
    const auto luma = static_cast<std::size_t>(c.width * c.height);
    EXPECT_EQ((*frame.data)[0], c.luma);
    EXPECT_EQ((*frame.data)[luma - 1], c.luma);
    EXPECT_EQ((*frame.data)[luma], 128);
    EXPECT_EQ(frame.data->back(), 128);
    EXPECT_EQ(frame.dirtyRegions, (std::vector<RectPx>{{0, 0, c.width, c.height}}));
  }
}

// The pipeline frees what the callback uses once stop() returns.
TEST(FakeCaptureSource, StopWaitsForTheFrameInFlightAndDeliversNothingAfter) {
  FakeCaptureSource source;
  std::atomic<bool> inHandler{false};
  std::atomic<bool> handlerDone{false};
  std::atomic<int> afterStop{0};
  std::atomic<bool> stopped{false};
  source.setFrameReady([&](const CapturedFrame&) {
    if (stopped) ++afterStop;
    if (handlerDone) return;
    inHandler = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    handlerDone = true;
  });
  source.start({.width = 16, .height = 16, .framesPerSecond = 100});
  while (!inHandler) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  source.stop();
  stopped = true;
  EXPECT_TRUE(handlerDone);
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(afterStop, 0);
}

VideoEncoderSettings settings(VideoCodec codec = VideoCodec::h264, std::int64_t bFrames = 0) {
  return {.codec = codec,
          .width = 960,
          .height = 540,
          .framesPerSecond = 10,
          .bitrateKbps = 3000,
          .bFrames = bFrames};
}

TEST(FakeH264Encoder, ConfigureRefusesWhatItCannotEncodeAndKeepsTheOldSettings) {
  FakeH264Encoder encoder;
  EXPECT_THROW(encoder.encode(FakeCaptureSource::makeFrame(1, 16, 16, 0), false), MediaError);
  EXPECT_THROW(encoder.setBitrate(100), MediaError);
  EXPECT_THROW(encoder.configure(settings(VideoCodec::h264, 2)), MediaError);
  EXPECT_FALSE(encoder.settings());
  encoder.configure(settings());
  EXPECT_THROW(encoder.configure(settings(VideoCodec::av1)), MediaError);
  EXPECT_EQ(encoder.settings(), settings());
}

TEST(FakeH264Encoder, AccessUnitCarriesTheSequence) {
  struct Case {
    std::int64_t sequence;
    bool force;
    Bytes annexB;
    bool key;
  };
  const Case cases[] = {
      {1, false, {0, 0, 0, 1, 0x65, 0, 0, 0, 0, 0, 0, 0, 1}, true},
      {2, false, {0, 0, 0, 1, 0x41, 0, 0, 0, 0, 0, 0, 0, 2}, false},
      {0x0102030405060708, true, {0, 0, 0, 1, 0x65, 1, 2, 3, 4, 5, 6, 7, 8}, true},
  };
  FakeH264Encoder encoder;
  encoder.configure(settings());
  for (const auto& c : cases) {
    auto frame = FakeCaptureSource::makeFrame(c.sequence % 1000, 16, 16, 0);
    frame.sequence = c.sequence;
    auto encoded = encoder.encode(frame, c.force);
    ASSERT_TRUE(encoded);
    EXPECT_EQ(encoded->annexB, c.annexB);
    EXPECT_EQ(encoded->isKeyFrame, c.key);
    EXPECT_EQ(encoded->sequence, c.sequence);
    EXPECT_EQ(encoded->rtpDuration, 9000u);
  }
}

}  // namespace
}  // namespace zul
