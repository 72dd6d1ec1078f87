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

// Refuses what it cannot encode and keeps the old settings; the access unit
// carries the sequence.
TEST(FakeH264Encoder, ConfigureRefusesWhatItCannotEncodeAndFramesCarryTheSequence) {
  VideoEncoderSettings settings{.codec = VideoCodec::h264,
                                .width = 960,
                                .height = 540,
                                .framesPerSecond = 10,
                                .bitrateKbps = 3000};
  FakeH264Encoder encoder;
  EXPECT_THROW(encoder.encode(FakeCaptureSource::makeFrame(1, 16, 16, 0), false), MediaError);
  EXPECT_THROW(encoder.setBitrate(100), MediaError);
  auto bad = settings;
  bad.bFrames = 2;
  EXPECT_THROW(encoder.configure(bad), MediaError);
  EXPECT_FALSE(encoder.settings());
  encoder.configure(settings);
  bad = settings;
  bad.codec = VideoCodec::av1;
  EXPECT_THROW(encoder.configure(bad), MediaError);
  EXPECT_EQ(encoder.settings(), settings);

  const std::tuple<std::int64_t, bool, Bytes, bool> cases[] = {
      {1, false, {0, 0, 0, 1, 0x65, 0, 0, 0, 0, 0, 0, 0, 1}, true},
      {2, false, {0, 0, 0, 1, 0x41, 0, 0, 0, 0, 0, 0, 0, 2}, false},
      {0x0102030405060708, true, {0, 0, 0, 1, 0x65, 1, 2, 3, 4, 5, 6, 7, 8}, true},
  };
  for (const auto& [sequence, force, annexB, key] : cases) {
    auto frame = FakeCaptureSource::makeFrame(sequence % 1000, 16, 16, 0);
    frame.sequence = sequence;
    auto encoded = encoder.encode(frame, force);
    ASSERT_TRUE(encoded);
    EXPECT_EQ(encoded->annexB, annexB);
    EXPECT_EQ(encoded->isKeyFrame, key);
    EXPECT_EQ(encoded->sequence, sequence);
    EXPECT_EQ(encoded->rtpDuration, 9000u);
  }
}

}  // namespace
}  // namespace zul
