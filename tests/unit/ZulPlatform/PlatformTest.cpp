#include <gtest/gtest.h>

#include <random>

#include "ZulPlatform/linux/DesktopBackend.h"
#include "ZulPlatform/linux/capture/FrameGate.h"
#include "ZulPlatform/linux/capture/Nv12FrameSurface.h"
#include "ZulPlatform/linux/encoder/H264AnnexB.h"
#include "ZulPlatform/linux/encoder/LibavH264Encoder.h"
#include "unit/ZulCore/Outcome.h"

namespace zul {
namespace {

// Which backend a session gets, or the error that names what is missing.
TEST(DesktopChoiceTest, FollowsTheSessionAndTheForcedSetting) {
  const struct {
    DesktopSessionFacts facts;
    std::string backend;  // empty: an error whose text holds `error`
    std::string error;
  } cases[] = {
      {{.sessionType = "x11", .x11Display = ":0"}, "x11", ""},
      {{.sessionType = "wayland",
        .waylandDisplay = "wayland-0",
        .x11Display = ":0",
        .mutterRemoteDesktop = true},
       "gnome",
       ""},
      // No session type: a Wayland display decides.
      {{.waylandDisplay = "wayland-0", .mutterRemoteDesktop = true}, "gnome", ""},
      {{.x11Display = ":1", .mutterRemoteDesktop = true}, "x11", ""},
      {{.mutterRemoteDesktop = true}, "gnome", ""},
      // Wayland without mutter: XWayland would show only X11 windows.
      {{.sessionType = "wayland", .waylandDisplay = "wayland-1", .x11Display = ":0"},
       "",
       "org.freedesktop.portal.RemoteDesktop"},
      {{}, "", "unsupportedSession"},
      {{.forced = "x11", .sessionType = "wayland", .mutterRemoteDesktop = true}, "x11", ""},
      {{.forced = "gnome", .sessionType = "x11", .x11Display = ":0"}, "gnome", ""},
      {{.forced = "portal", .sessionType = "wayland"}, "", "portal"},
      {{.forced = "kde"}, "", "unknownBackend(\"kde\")"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE("type=" + c.facts.sessionType + " forced=" + c.facts.forced);
    std::string backend;
    const auto text =
        test::outcome<DesktopBackendError>([&] { backend = chooseDesktop(c.facts).backend; });
    EXPECT_EQ(backend, c.backend);
    EXPECT_NE(text.find(c.error.empty() ? "ok" : c.error), std::string::npos) << text;
  }
}

using namespace std::chrono_literals;
using Decision = FrameGate::Decision;

TEST(FrameGateTest, RatesAtOrBelowZeroMeanOneSecondAndIdleNeverOutrunsActive) {
  struct Row {
    std::int64_t fps, idle;
    FrameGate::Clock::duration active, idleInterval;
  };
  const Row rows[] = {
      {30, 2, FrameGate::Clock::duration(1s) / 30, 500ms},
      {10, 0, 100ms, 1s},
      {0, 0, 1s, 1s},
      {-5, -1, 1s, 1s},
      {10, 50, 100ms, 100ms},
  };
  for (const auto& row : rows) {
    FrameGate gate(row.fps, row.idle);
    EXPECT_EQ(gate.activeInterval(), row.active) << row.fps << "/" << row.idle;
    EXPECT_EQ(gate.idleInterval(), row.idleInterval) << row.fps << "/" << row.idle;
  }
}

TEST(FrameGateTest, StillScreenIsDeliveredAtTheIdleRate) {
  FrameGate gate(10, 2);
  FrameGate::Clock::time_point t{};
  int delivered = 0;
  // Five seconds of samples at 10 per second, nothing changing after the
  // first; each comes a millisecond early, as timers do, which the quarter
  // interval of allowance absorbs.
  for (int i = 0; i < 50; ++i, t += 99ms) {
    if (gate.offer(t, i == 0) == Decision::deliver) {
      ++delivered;
      gate.delivered(t);
    }
  }
  EXPECT_EQ(delivered, 10);  // the first, then one per half second
}

TEST(FrameGateTest, EveryChangedSampleIsDueUntilDeliveredAndOnlyChangesNeedConversion) {
  FrameGate gate(10, 1);
  FrameGate::Clock::time_point t{};
  EXPECT_EQ(gate.offer(t, false), Decision::deliver);  // the first picture is always new
  EXPECT_TRUE(gate.contentChanged());
  gate.delivered(t);
  EXPECT_EQ(gate.offer(t += 100ms, true), Decision::deliver);
  EXPECT_TRUE(gate.contentChanged());
  gate.delivered(t);
  EXPECT_EQ(gate.offer(t += 100ms, false), Decision::skip);
  EXPECT_EQ(gate.offer(t += 900ms, false), Decision::deliver);
  EXPECT_FALSE(gate.contentChanged());  // an idle repeat hands out the previous picture
  gate.delivered(t);

  // A change seen while the consumer is busy stays pending.
  ASSERT_EQ(gate.offer(t += 100ms, true), Decision::deliver);
  gate.dropped();
  // The screen is still now, but the dropped change has not been seen yet.
  EXPECT_EQ(gate.offer(t += 100ms, false), Decision::deliver);
  EXPECT_TRUE(gate.contentChanged());
  gate.delivered(t);
  EXPECT_EQ(gate.offer(t += 100ms, false), Decision::skip);
  EXPECT_EQ(gate.droppedCount(), 1);
}

// A reported change makes the next read due at once, but never sooner than
// one active interval after the previous read; with no change reported the
// screen is read only when the idle frame is due.
TEST(FrameGateTest, ReportedChangesAreReadAtOnceWithinTheActiveRate) {
  FrameGate gate(10, 2);
  const FrameGate::Clock::time_point t{std::chrono::seconds(100)};
  EXPECT_EQ(gate.nextReadAt(), FrameGate::Clock::time_point::min());  // nothing read yet
  ASSERT_EQ(gate.offer(t, true), Decision::deliver);
  gate.delivered(t);
  // Still: the idle frame, less a quarter interval of allowance.
  EXPECT_EQ(gate.nextReadAt(), t + 500ms - 25ms);
  gate.noticeChange();
  EXPECT_EQ(gate.nextReadAt(), t + 100ms);  // capped at the active rate
  ASSERT_EQ(gate.offer(t + 300ms, true), Decision::deliver);
  gate.dropped();  // the consumer was busy: the change stays due
  EXPECT_EQ(gate.nextReadAt(), t + 400ms);
  ASSERT_EQ(gate.offer(t + 400ms, false), Decision::deliver);
  gate.delivered(t + 400ms);
  EXPECT_EQ(gate.nextReadAt(), t + 900ms - 25ms);
  // A notice whose read shows nothing new is not delivered.
  gate.noticeChange();
  EXPECT_EQ(gate.offer(t + 500ms, false), Decision::skip);
  EXPECT_EQ(gate.nextReadAt(), t + 900ms - 25ms);
}

VideoEncoderSettings settings(std::int64_t width = 320, std::int64_t height = 240) {
  return {.width = width, .height = height, .framesPerSecond = 30, .bitrateKbps = 800};
}

// A software-only encoder, so that the outcome does not depend on the GPU.
LibavH264Encoder softwareEncoder() { return LibavH264Encoder({"libx264"}); }

CapturedFrame nv12Frame(std::int64_t sequence, int width = 320, int height = 240) {
  auto surface = Nv12FrameSurface::allocate(width, height);
  for (int y = 0; y < height; ++y) {
    for (int x = 0; x < width; ++x) surface->luma()[y * width + x] = std::uint8_t(x + y + sequence);
  }
  // Chroma unlike luma and unlike itself, so that a misplaced plane shows.
  for (int i = 0; i < surface->chromaStride() * surface->chromaHeight(); ++i)
    surface->chroma()[i] = std::uint8_t(96 + (i * 7) % 64);
  return CapturedFrame{.sequence = sequence,
                       .capturedAt = std::chrono::system_clock::now(),
                       .width = width,
                       .height = height,
                       .pixelFormat = PixelFormat::nv12,
                       .nativeSurface = surface};
}

std::vector<int> nalTypes(const Bytes& annexB) {
  std::vector<int> types;
  for (auto unit : h264::splitAnnexB(annexB)) types.push_back(h264::nalType(unit));
  return types;
}

Bytes units(std::initializer_list<Bytes> list, bool shortStartCodes = false) {
  Bytes out;
  for (const auto& unit : list) {
    if (!shortStartCodes) out.push_back(0);
    out.insert(out.end(), {0, 0, 1});
    out.insert(out.end(), unit.begin(), unit.end());
  }
  return out;
}

const Bytes sps{0x67, 0x42, 0xc0, 0x1f};
const Bytes pps{0x68, 0xce, 0x3c, 0x80};
const Bytes idr{0x65, 0x88, 0x84, 0x00, 0x21};
const Bytes slice{0x41, 0x9a, 0x02};
const Bytes sei{0x06, 0x05, 0x01, 0x80};
const Bytes aud{0x09, 0xf0};

TEST(H264AnnexBTest, SplitsOnThreeAndFourByteStartCodesAndDropsTrailingZeros) {
  Bytes stream{0xff, 0xee};  // garbage before the first start code
  auto body = units({sps, pps});
  stream.insert(stream.end(), body.begin(), body.end());
  auto tail = units({idr}, /*shortStartCodes=*/true);
  stream.insert(stream.end(), tail.begin(), tail.end());
  stream.insert(stream.end(), {0, 0});  // trailing_zero_8bits
  auto parts = h264::splitAnnexB(stream);
  ASSERT_EQ(parts.size(), 3u);
  EXPECT_EQ(Bytes(parts[0].begin(), parts[0].end()), sps);
  EXPECT_EQ(Bytes(parts[1].begin(), parts[1].end()), pps);
  EXPECT_EQ(Bytes(parts[2].begin(), parts[2].end()), idr);
  EXPECT_TRUE(h264::splitAnnexB(Bytes{}).empty());
  EXPECT_TRUE(h264::splitAnnexB(Bytes{0, 0, 1}).empty());
  EXPECT_TRUE(h264::splitAnnexB(Bytes{1, 2, 3, 0, 0}).empty());
}

TEST(H264AnnexBTest, ParameterSetsComeBeforeEveryKeyFrameAndNowhereElse) {
  struct Row {
    const char* name;
    Bytes encoded;
    Bytes expected;
    bool key;
  };
  H264AccessUnitWriter writer;
  const Row rows[] = {
      // The encoder's own order (SEI first, AUD) is normalised.
      {"first key frame", units({aud, sei, sps, pps, idr}), units({sps, pps, sei, idr}), true},
      {"inter frame", units({slice}, true), units({slice}), false},
      {"inter frame with stray parameter sets", units({sps, pps, slice}), units({slice}), false},
      // A key frame without in-band parameter sets gets the latest ones.
      {"forced key frame", units({idr}), units({sps, pps, idr}), true},
  };
  for (const auto& row : rows) {
    auto out = writer.rewrite(row.encoded);
    EXPECT_EQ(out.annexB, row.expected) << row.name;
    EXPECT_EQ(out.isKeyFrame, row.key) << row.name;
  }
}

TEST(H264AnnexBTest, ParameterSetsLearnedFromExtradataAndReplacedByNewerOnes) {
  H264AccessUnitWriter writer;
  EXPECT_FALSE(writer.hasParameterSets());
  writer.learnParameterSets(units({sps, pps}));
  EXPECT_TRUE(writer.hasParameterSets());
  const Bytes newerSps{0x67, 0x42, 0xc0, 0x28};
  writer.rewrite(units({newerSps, pps, idr}));
  EXPECT_EQ(writer.rewrite(units({idr})).annexB, units({newerSps, pps, idr}));
}

TEST(LibavH264EncoderTest, ConfigurationAndFramesAreValidated) {
  auto with = [](auto change) {
    auto s = settings();
    change(s);
    return s;
  };
  const std::pair<VideoEncoderSettings, MediaError> rows[] = {
      {with([](auto& s) {
         s.codec = VideoCodec::av1;
         s.bFrames = 2;
       }),
       MediaError::unsupportedCodec()},
      {with([](auto& s) { s.bFrames = 1; }), MediaError::bFramesNotSupported()},
      {with([](auto& s) { s.height = 721; }), MediaError::invalidDimensions()},
      {with([](auto& s) { s.hardwareRequired = true; }), MediaError::hardwareUnavailable()},
  };
  for (const auto& [bad, expected] : rows) {
    auto encoder = softwareEncoder();
    EXPECT_EQ(test::outcome<MediaError>([&] { encoder.configure(bad); }), expected.text());
    EXPECT_FALSE(encoder.settings());
  }
  auto encoder = softwareEncoder();
  EXPECT_THROW(encoder.encode(nv12Frame(1), true), MediaError);
  EXPECT_THROW(encoder.setBitrate(1000), MediaError);
  encoder.configure(settings());
  CapturedFrame empty = nv12Frame(1);
  empty.nativeSurface.reset();
  EXPECT_THROW(encoder.encode(empty, false), MediaError);
  // A frame of another size than configured is refused, not scaled.
  EXPECT_THROW(encoder.encode(nv12Frame(1, 640, 480), false), MediaError);
}

// A key frame where forced, and at least every ten seconds of frames unless
// only requested ones are wanted; parameter sets on key frames only.
TEST(LibavH264EncoderTest, KeyFramesComePeriodicallyOrOnlyOnRequest) {
  for (const bool onRequestOnly : {false, true}) {
    auto encoder = softwareEncoder();
    auto oneFramePerSecond = settings();
    oneFramePerSecond.framesPerSecond = 1;
    oneFramePerSecond.keyFramesOnRequestOnly = onRequestOnly;
    encoder.configure(oneFramePerSecond);
    std::vector<std::int64_t> keys;
    for (std::int64_t sequence = 1; sequence <= 21; ++sequence) {
      auto frame = nv12Frame(sequence);
      auto encoded = encoder.encode(frame, sequence == 1 || sequence == 17);
      ASSERT_TRUE(encoded) << sequence;  // real time: one access unit per frame
      EXPECT_EQ(encoded->sequence, sequence);
      EXPECT_EQ(encoded->capturedAt, frame.capturedAt);
      EXPECT_EQ(encoded->rtpDuration, 90000u);
      auto types = nalTypes(encoded->annexB);
      ASSERT_FALSE(types.empty());
      EXPECT_EQ(types[0] == h264::nalSps, encoded->isKeyFrame) << sequence;
      EXPECT_EQ(std::count(types.begin(), types.end(), h264::nalPps), encoded->isKeyFrame ? 1 : 0);
      if (encoded->isKeyFrame) keys.push_back(sequence);
    }
    if (onRequestOnly) {
      EXPECT_EQ(keys, (std::vector<std::int64_t>{1, 17}));
    } else {
      ASSERT_FALSE(keys.empty());
      EXPECT_EQ(keys.front(), 1);
      EXPECT_NE(std::find(keys.begin(), keys.end(), 17), keys.end());
      for (std::size_t i = 1; i < keys.size(); ++i) EXPECT_LE(keys[i] - keys[i - 1], 10);
      EXPECT_LE(21 - keys.back(), 10);
    }
  }
}

// Rate changes while running steer the size of the frames: a lower bit rate
// makes them smaller, fewer frames a second at the same bit rate larger.
TEST(LibavH264EncoderTest, BitRateAndFrameRateChangesReachTheRunningEncoder) {
  auto encoder = softwareEncoder();
  encoder.configure(settings());
  std::mt19937 random(3);
  std::int64_t sequence = 0;
  // Average size of the last half of `frames` busy frames.
  auto averageSize = [&](int frames) {
    std::size_t total = 0;
    for (int i = 0; i < frames; ++i) {
      auto frame = nv12Frame(++sequence);
      auto* surface = static_cast<Nv12FrameSurface*>(frame.nativeSurface.get());
      for (int at = 0; at < 320 * 240; ++at) surface->luma()[at] ^= std::uint8_t(random() & 0x3f);
      auto encoded = encoder.encode(frame, sequence == 1);
      if (encoded && i >= frames / 2) total += encoded->annexB.size();
    }
    return double(total) / (frames - frames / 2);
  };
  struct Step {
    std::int64_t kbps;
    double fps;
    double lowest, highest;  // expected size relative to the step before
  } steps[] = {{2000, 30, 0, 0}, {500, 30, 0.1, 0.5}, {500, 10, 2.0, 5.0}};
  double before = 0;
  for (const auto& step : steps) {
    encoder.setBitrate(step.kbps);
    // Each change on its own: either must reach the running encoder.
    if (step.fps != encoder.frameRate()) encoder.setFrameRate(step.fps);
    EXPECT_EQ(encoder.frameRate(), step.fps);
    const double size = averageSize(60);
    if (before > 0) {
      EXPECT_GT(size, before * step.lowest) << step.kbps << " kbps at " << step.fps;
      EXPECT_LT(size, before * step.highest) << step.kbps << " kbps at " << step.fps;
    }
    before = size;
  }
  EXPECT_THROW(encoder.setFrameRate(0), MediaError);
  encoder.setFrameRate(90);  // never above the rate the encoder was opened with
  EXPECT_EQ(encoder.frameRate(), 30);
}

TEST(LibavH264EncoderTest, ReconfigureTakesNv12DataOrLeavesTheEncoderUnconfigured) {
  auto encoder = softwareEncoder();
  encoder.configure(settings());
  ASSERT_TRUE(encoder.encode(nv12Frame(1), true));
  EXPECT_THROW(encoder.setBitrate(0), MediaError);

  // NV12 in the frame's data encodes exactly as the same picture on a
  // surface; a new session starts with a key frame.
  encoder.configure(settings(64, 48));
  const auto onSurface = nv12Frame(3, 64, 48);
  auto inData = onSurface;
  auto* surface = static_cast<Nv12FrameSurface*>(onSurface.nativeSurface.get());
  inData.data = std::make_shared<const Bytes>(surface->luma(),
                                              surface->luma() + Nv12FrameSurface::bytesFor(64, 48));
  inData.nativeSurface.reset();
  auto other = softwareEncoder();
  other.configure(settings(64, 48));
  auto encoded = encoder.encode(inData, false);
  auto reference = other.encode(onSurface, false);
  ASSERT_TRUE(encoded && reference);
  EXPECT_TRUE(encoded->isKeyFrame);
  EXPECT_EQ(encoded->annexB, reference->annexB);

  EXPECT_THROW(encoder.configure(settings(63, 48)), MediaError);
  EXPECT_THROW(encoder.encode(nv12Frame(4), false), MediaError);
}

}  // namespace
}  // namespace zul
