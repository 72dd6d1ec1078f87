#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
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
      {1, 960, 540, 777600, 17}, {179, 16, 16, 384, 195}, {180, 16, 16, 384, 16},
      {181, 16, 16, 384, 17},    {360, 2, 2, 6, 16},      {3, 3, 3, 13, 19},
  };
  for (const auto& c : cases) {
    auto frame = FakeCaptureSource::makeFrame(c.sequence, c.width, c.height, 4);
    ASSERT_EQ(frame.dataSize(), c.bytes) << c.sequence;
    const auto luma = static_cast<std::size_t>(c.width * c.height);
    EXPECT_EQ((*frame.data)[0], c.luma);
    EXPECT_EQ((*frame.data)[luma - 1], c.luma);
    EXPECT_EQ((*frame.data)[luma], 128);
    EXPECT_EQ(frame.data->back(), 128);
    EXPECT_EQ(frame.pixelFormat, PixelFormat::nv12);
    EXPECT_EQ(frame.dirtyRegions, (std::vector<RectPx>{{0, 0, c.width, c.height}}));
    EXPECT_EQ(frame.displayIndex, 4);
    EXPECT_FALSE(frame.isHdr);
    EXPECT_FALSE(frame.nativeSurface);
  }
}

// Collects frames from the source's thread.
struct Collector {
  std::mutex mutex;
  std::condition_variable changed;
  std::vector<CapturedFrame> frames;

  CaptureSource::FrameReady handler() {
    return [this](const CapturedFrame& frame) {
      std::lock_guard lock(mutex);
      frames.push_back(frame);
      changed.notify_all();
    };
  }
  void waitFor(std::size_t count) {
    std::unique_lock lock(mutex);
    ASSERT_TRUE(
        changed.wait_for(lock, std::chrono::seconds(10), [&] { return frames.size() >= count; }));
  }
};

TEST(FakeCaptureSource, ClampsSizeAndKeepsNumberingAcrossRestarts) {
  FakeCaptureSource source;
  Collector collector;
  source.setFrameReady(collector.handler());
  source.start({.displayIndex = 7, .width = 0, .height = 0, .framesPerSecond = 200});
  EXPECT_THROW(source.start({}), CaptureError);
  collector.waitFor(2);
  source.stop();
  source.stop();  // idempotent

  std::size_t before;
  {
    std::lock_guard lock(collector.mutex);
    before = collector.frames.size();
    for (std::size_t i = 0; i < before; ++i) {
      EXPECT_EQ(collector.frames[i].sequence, static_cast<std::int64_t>(i + 1));
      EXPECT_EQ(collector.frames[i].width, 16);
      EXPECT_EQ(collector.frames[i].dataSize(), 384u);
      EXPECT_EQ(collector.frames[i].displayIndex, 7);
    }
  }
  source.start({.width = 32, .height = 32, .framesPerSecond = 200});
  collector.waitFor(before + 1);
  source.stop();
  std::lock_guard lock(collector.mutex);
  EXPECT_EQ(collector.frames[before].sequence, static_cast<std::int64_t>(before + 1));
  EXPECT_EQ(collector.frames[before].width, 32);
}

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

TEST(FakeCaptureSource, StopFromItsOwnCallbackEndsTheLoop) {
  FakeCaptureSource source;
  std::atomic<int> calls{0};
  source.setFrameReady([&](const CapturedFrame&) {
    ++calls;
    source.stop();
  });
  source.start({.framesPerSecond = 100});
  while (calls == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(calls, 1);
  source.start({.framesPerSecond = 100});  // joins the finished loop first
  source.stop();
}

TEST(FakeCaptureSource, StopWithoutStartReturns) {
  FakeCaptureSource source;
  source.stop();
}

VideoEncoderSettings settings(VideoCodec codec = VideoCodec::h264, std::int64_t bFrames = 0) {
  return {.codec = codec,
          .width = 960,
          .height = 540,
          .framesPerSecond = 10,
          .bitrateKbps = 3000,
          .bFrames = bFrames};
}

TEST(FakeH264Encoder, ConfigureChecksCodecBeforeBFrames) {
  struct Case {
    VideoEncoderSettings settings;
    std::optional<MediaError> error;
  };
  const Case cases[] = {
      {settings(VideoCodec::av1, 2), MediaError::unsupportedCodec()},
      {settings(VideoCodec::av1, 0), MediaError::unsupportedCodec()},
      {settings(VideoCodec::h264, 2), MediaError::bFramesNotSupported()},
      {settings(VideoCodec::h264, 0), std::nullopt},
  };
  for (const auto& c : cases) {
    FakeH264Encoder encoder;
    try {
      encoder.configure(c.settings);
      EXPECT_FALSE(c.error);
      EXPECT_EQ(encoder.settings(), c.settings);
    } catch (const MediaError& error) {
      ASSERT_TRUE(c.error);
      EXPECT_EQ(error, *c.error);
      EXPECT_FALSE(encoder.settings());
    }
  }
}

TEST(FakeH264Encoder, FailedReconfigureKeepsPreviousSettings) {
  FakeH264Encoder encoder;
  encoder.configure(settings());
  EXPECT_THROW(encoder.configure(settings(VideoCodec::av1)), MediaError);
  EXPECT_EQ(encoder.settings(), settings());
}

TEST(FakeH264Encoder, NeedsConfigureFirst) {
  FakeH264Encoder encoder;
  EXPECT_THROW(encoder.encode(FakeCaptureSource::makeFrame(1, 16, 16, 0), false), MediaError);
  EXPECT_THROW(encoder.setBitrate(100), MediaError);
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
      {2, true, {0, 0, 0, 1, 0x65, 0, 0, 0, 0, 0, 0, 0, 2}, true},
      {0x0102030405060708, false, {0, 0, 0, 1, 0x41, 1, 2, 3, 4, 5, 6, 7, 8}, false},
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
    EXPECT_EQ(encoded->capturedAt, frame.capturedAt);
    EXPECT_EQ(encoded->rtpDuration, 9000u);
    EXPECT_EQ(encoded->codec, VideoCodec::h264);
  }
}

}  // namespace
}  // namespace zul
