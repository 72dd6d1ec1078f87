#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulCore/Trust/SecretStore.h"
#include "ZulCore/Trust/TrustedDevice.h"
#include "ZulPlatform/linux/DesktopBackend.h"
#include "ZulPlatform/linux/audit/AuditLog.h"
#include "ZulPlatform/linux/capture/DamageRects.h"
#include "ZulPlatform/linux/capture/FrameGate.h"
#include "ZulPlatform/linux/capture/Nv12FrameSurface.h"
#include "ZulPlatform/linux/encoder/H264AnnexB.h"
#include "ZulPlatform/linux/encoder/LibavH264Encoder.h"
#include "ZulPlatform/linux/files/HomeFolder.h"
#include "ZulPlatform/linux/secrets/FileSecretBackend.h"
#include "ZulPlatform/linux/secrets/SecretBackendSelection.h"
#include "support/Outcome.h"

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

// The repeat of a change's last picture comes after 33 ms, never sooner than
// the active interval nor later than the idle one.
TEST(FrameGateTest, RatesAtOrBelowZeroMeanOneSecondAndIdleNeverOutrunsActive) {
  struct Row {
    std::int64_t fps, idle;
    FrameGate::Clock::duration active, idleInterval, repeat;
  };
  const Row rows[] = {
      {60, 2, FrameGate::Clock::duration(1s) / 60, 500ms, 33ms},
      {30, 2, FrameGate::Clock::duration(1s) / 30, 500ms, 33ms},
      {10, 0, 100ms, 1s, 100ms},
      {0, 0, 1s, 1s, 1s},
      {-5, -1, 1s, 1s, 1s},
      {10, 50, 100ms, 100ms, 100ms},
  };
  for (const auto& row : rows) {
    FrameGate gate(row.fps, row.idle);
    EXPECT_EQ(gate.activeInterval(), row.active) << row.fps << "/" << row.idle;
    EXPECT_EQ(gate.idleInterval(), row.idleInterval) << row.fps << "/" << row.idle;
    const FrameGate::Clock::time_point t{100s};
    gate.offer(t, true);
    gate.delivered(t);
    EXPECT_EQ(gate.offer(t + row.repeat / 2, false), Decision::skip) << row.fps;
    EXPECT_EQ(gate.offer(t + row.repeat, false), Decision::deliver) << row.fps;
  }
}

// The encoder's time per frame picks the rate capture runs at: the highest
// while a typical frame fits 80 % of its interval, the lower one beyond; back
// up only below half of it. A lone slow key frame changes nothing. The gate
// follows, never above the capture's own rate.
TEST(FrameGateTest, FollowsTheRateTheEncoderKeepsUpWith) {
  struct Row {
    const char* what;
    std::int64_t highest, lower, captureFps;
    std::vector<std::pair<int, double>> frames;  // (count, ms each), in order
    std::int64_t expected;
    std::vector<FrameRateChoice::Change> changes;  // every change on the way
  };
  using C = FrameRateChoice::Change;
  const Row rows[] = {
      {"keeps up", 60, 30, 60, {{32, 6.0}}, 60, {}},
      {"one slow key frame", 60, 30, 60, {{1, 40.0}, {15, 5.0}}, 60, {}},
      {"falls behind", 60, 30, 60, {{16, 14.0}}, 30, {C::lowered}},
      {"just inside 80 %", 60, 30, 60, {{16, 13.0}}, 60, {}},
      {"half the interval is not enough to go back", 60, 30, 60, {{16, 15.0}, {16, 9.0}}, 30,
       {C::lowered}},
      {"catches up again", 60, 30, 60, {{16, 15.0}, {16, 7.0}}, 60, {C::lowered, C::raised}},
      {"capped at 30: nothing lower", 30, 30, 30, {{16, 30.0}}, 30, {}},
      {"ZUL_MAX_FPS 20 caps the gate", 60, 30, 20, {{16, 5.0}}, 20, {}},
      {"lower never above highest", 24, 30, 24, {{16, 40.0}}, 24, {}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.what);
    auto choice = std::make_shared<FrameRateChoice>(row.highest, row.lower);
    std::vector<C> changes;
    for (const auto& [count, ms] : row.frames) {
      for (int i = 0; i < count; ++i) {
        const auto change = choice->encoded(std::chrono::microseconds(std::int64_t(ms * 1000)));
        if (change != C::none) changes.push_back(change);
      }
    }
    EXPECT_EQ(changes, row.changes);
    FrameGate gate(row.captureFps, 2);
    followAdaptiveRate(gate, {.framesPerSecond = row.captureFps, .adaptiveRate = choice});
    EXPECT_EQ(gate.activeInterval(), FrameGate::Clock::duration(1s) / row.expected);
    EXPECT_EQ(gate.idleInterval(), 500ms);
  }
}

// Damage becomes few rectangles to convert: clipped, at even coordinates,
// merged where near, mapped (with the filter's margin) onto a scaled picture.
TEST(FrameGateTest, DamageBecomesFewEvenRectanglesInsideThePicture) {
  const struct {
    const char* what;
    std::vector<RectPx> damage;
    int sourceWidth, sourceHeight, width, height;
    std::vector<RectPx> expected;
  } cases[] = {
      {"nothing", {}, 1920, 1080, 1920, 1080, {}},
      {"empty and outside", {{5, 5, 0, 9}, {2000, 10, 50, 50}}, 1920, 1080, 1920, 1080, {}},
      {"odd edges widen to even", {{33, 33, 95, 95}}, 1920, 1080, 1920, 1080,
       {{32, 32, 96, 96}}},
      {"clipped at the edges", {{-10, 1070, 40, 40}, {1900, -5, 40, 10}}, 1920, 1080, 1920,
       1080, {{1900, 0, 20, 6}, {0, 1070, 30, 10}}},
      {"near ones merge, far ones stay", {{0, 0, 10, 10}, {20, 0, 10, 10}, {500, 500, 10, 10}},
       1920, 1080, 1920, 1080, {{0, 0, 30, 10}, {500, 500, 10, 10}}},
      {"overlapping merge", {{100, 100, 50, 50}, {120, 120, 50, 50}}, 1920, 1080, 1920, 1080,
       {{100, 100, 70, 70}}},
      {"scaled to half, with margin", {{100, 100, 20, 20}}, 3840, 2160, 1920, 1080,
       {{48, 48, 14, 14}}},
      {"odd-sized picture", {{0, 0, 7, 7}}, 7, 7, 7, 7, {{0, 0, 7, 7}}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    EXPECT_EQ(rectsToConvert(c.damage, c.sourceWidth, c.sourceHeight, c.width, c.height),
              c.expected);
  }
  // A page of words in lines: one box.
  std::vector<RectPx> words;
  for (int line = 0; line < 40; ++line) {
    for (int word = 0; word < 12; ++word) words.push_back({200 + word * 40, 40 + line * 24, 30, 10});
  }
  EXPECT_EQ(rectsToConvert(words, 1920, 1080, 1920, 1080),
            (std::vector<RectPx>{{200, 40, 470, 946}}));
  // Many scattered specks: their bounding box.
  std::vector<RectPx> scattered;
  for (int i = 0; i < 40; ++i) scattered.push_back({i * 47, (i * 131) % 1000, 4, 4});
  EXPECT_EQ(rectsToConvert(scattered, 1920, 1080, 1920, 1080).size(), 1u);
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
  // The first, once more a tenth of a second later, then one per half second.
  EXPECT_EQ(delivered, 11);
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
  // A change goes out once more a tenth of a second later, then at the idle rate.
  EXPECT_EQ(gate.offer(t += 50ms, false), Decision::skip);
  EXPECT_EQ(gate.offer(t += 50ms, false), Decision::deliver);
  EXPECT_FALSE(gate.contentChanged());  // a repeat hands out the previous picture
  gate.delivered(t);
  EXPECT_EQ(gate.offer(t += 100ms, false), Decision::skip);
  EXPECT_EQ(gate.offer(t += 900ms, false), Decision::deliver);
  gate.delivered(t);

  // A change seen while the consumer is busy stays pending.
  ASSERT_EQ(gate.offer(t += 100ms, true), Decision::deliver);
  gate.dropped();
  // The screen is still now, but the dropped change has not been seen yet.
  EXPECT_EQ(gate.offer(t += 100ms, false), Decision::deliver);
  EXPECT_TRUE(gate.contentChanged());
  gate.delivered(t);
  EXPECT_EQ(gate.offer(t += 50ms, false), Decision::skip);
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
  // Still: the change once more after a tenth of a second (here the active
  // interval too).
  EXPECT_EQ(gate.nextReadAt(), t + 100ms);
  gate.noticeChange();
  EXPECT_EQ(gate.nextReadAt(), t + 100ms);  // capped at the active rate
  ASSERT_EQ(gate.offer(t + 300ms, true), Decision::deliver);
  gate.dropped();  // the consumer was busy: the change stays due
  EXPECT_EQ(gate.nextReadAt(), t + 400ms);
  ASSERT_EQ(gate.offer(t + 400ms, false), Decision::deliver);
  gate.delivered(t + 400ms);
  EXPECT_EQ(gate.nextReadAt(), t + 500ms);
  ASSERT_EQ(gate.offer(t + 500ms, false), Decision::deliver);
  gate.delivered(t + 500ms);
  // Then the idle frame, less a quarter interval of allowance.
  EXPECT_EQ(gate.nextReadAt(), t + 1000ms - 25ms);
  // A notice whose read shows nothing new is not delivered.
  gate.noticeChange();
  EXPECT_EQ(gate.offer(t + 600ms, false), Decision::skip);
  EXPECT_EQ(gate.nextReadAt(), t + 1000ms - 25ms);
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

namespace fs = std::filesystem;

constexpr const char* kService = "dev.zul.agent.mac";

mode_t modeOf(const fs::path& path) {
  struct stat info {};
  EXPECT_EQ(::lstat(path.c_str(), &info), 0) << path;
  return info.st_mode & 07777;
}

std::string readFile(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

void writeFile(const fs::path& path, std::string_view content) {
  std::ofstream(path, std::ios::binary) << content;
}

class FileSecretBackendTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/zul-secrets-test-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    temp = pattern;
    root = temp / "data" / "zul-agent" / "secrets";
    backend = std::make_shared<FileSecretBackend>(root);
  }
  void TearDown() override { fs::remove_all(temp); }

  fs::path temp, root;
  std::shared_ptr<FileSecretBackend> backend;
};

// Folders another user can list are tightened before anything is read.
TEST_F(FileSecretBackendTest, FoldersAndFilesAreReadableByTheUserAlone) {
  ::umask(022);
  fs::create_directories(root / kService);
  ::chmod(root.c_str(), 0755);
  ::chmod((root / kService).c_str(), 0777);
  EXPECT_EQ(backend->load(kService, "identity"), std::nullopt);
  EXPECT_EQ(modeOf(root), 0700u);
  EXPECT_EQ(modeOf(root / kService), 0700u);
  ::chmod((root / kService).c_str(), 0755);
  backend->save(kService, "identity", toBytes("secret"));
  EXPECT_EQ(modeOf(root / kService), 0700u);
  EXPECT_EQ(modeOf(backend->pathFor(kService, "identity")), 0600u);
}

TEST_F(FileSecretBackendTest, EscapesNamesIntoDistinctFilesThatSaveReplaceAndRemove) {
  EXPECT_EQ(backend->load(kService, "identity"), std::nullopt);  // not even a folder yet
  const std::pair<std::string, std::string> table[] = {
      {"dtls.certificate_v2", "dtls.certificate_v2"},
      {"", "%"},
      {"..", "%2E."},
      {"../x", "%2E.%2Fx"},
      {"a%2Fb", "a%252Fb"},
      {"sp ace\n", "sp%20ace%0A"},
  };
  std::set<std::string> files;
  for (const auto& [name, escaped] : table) {
    EXPECT_EQ(FileSecretBackend::escapeName(name), escaped) << name;
    EXPECT_EQ(backend->pathFor(kService, name).parent_path(), root / kService) << name;
    backend->save(kService, name, Bytes{0x00, 0xFF, 0x0A, 0x0D, 0x00});
    backend->save(kService, name, toBytes(name + std::string("\0\r", 2)));  // shorter for most
    files.insert(escaped);
  }
  for (const auto& [name, escaped] : table)
    EXPECT_EQ(backend->load(kService, name), toBytes(name + std::string("\0\r", 2)));
  EXPECT_EQ(backend->load("other.service", "identity"), std::nullopt);
  // Only the secret files: no temporary file is left behind.
  std::set<std::string> onDisk;
  for (const auto& entry : fs::directory_iterator(root / kService))
    onDisk.insert(entry.path().filename().string());
  EXPECT_EQ(onDisk, files);
  EXPECT_EQ(std::distance(fs::directory_iterator(root), fs::directory_iterator()), 1);
  backend->remove(kService, "..");
  EXPECT_EQ(backend->load(kService, ".."), std::nullopt);
  backend->remove("never.used", "nothing");  // absent: nothing happens

  // A service name is escaped the same way.
  backend->save("../escape", "identity", toBytes("x"));
  EXPECT_TRUE(fs::exists(root / "%2E.%2Fescape" / "identity"));
}

TEST_F(FileSecretBackendTest, RefusesSymlinksUnreadableFilesAndAnUnwritableFolder) {
  backend->save(kService, "identity", toBytes("secret"));
  const fs::path elsewhere = temp / "elsewhere";
  writeFile(elsewhere, "planted");
  fs::create_symlink(elsewhere, backend->pathFor(kService, "link"));
  EXPECT_THROW(backend->load(kService, "link"), SecretStoreError);
  fs::create_directory(backend->pathFor(kService, "folder"));
  EXPECT_THROW(backend->load(kService, "folder"), SecretStoreError);

  // A save replaces the link itself, never the file it points to.
  backend->save(kService, "link", toBytes("mine"));
  EXPECT_EQ(readFile(elsewhere), "planted");
  EXPECT_EQ(backend->load(kService, "link"), toBytes("mine"));

  // Only root can plant a file owned by someone else.
  const fs::path identity = backend->pathFor(kService, "identity");
  if (::geteuid() == 0)
    ASSERT_EQ(::chown(identity.c_str(), 65534, 65534), 0);
  else
    ::chmod(identity.c_str(), 0000);
  const auto text = test::outcome<SecretStoreError>([&] { backend->load(kService, "identity"); });
  EXPECT_NE(text.find(::geteuid() == 0 ? "not owned by the user" : "readFailed"), std::string::npos)
      << text;

  const fs::path blocked = temp / "blocked";
  writeFile(blocked, "a file where the folder belongs");
  EXPECT_THROW(FileSecretBackend(blocked).save(kService, "identity", toBytes("secret")),
               SecretStoreError);
}

TrustedDevice phone(const std::string& id) {
  TrustedDevice device;
  device.deviceId = id;
  device.name = id;
  device.ed25519PublicKey = "key";
  device.permissions = {DevicePermission::view};
  return device;
}

// Runs `work` in a child process; returns its pid. The child exits 0 when
// `work` returns, 1 when it throws.
template <typename Work>
pid_t inChild(Work work) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    int status = 0;
    try {
      work();
    } catch (...) {
      status = 1;
    }
    ::_exit(status);
  }
  return pid;
}

TEST_F(FileSecretBackendTest, ConcurrentProcessesLoseNoUpdate) {
  // 8 processes, each revoking 5 phones and pairing 5 new ones at once, as
  // the agent pairing while the trusted-devices tool revokes.
  constexpr int processes = 8, each = 5;
  std::vector<TrustedDevice> before;
  for (int p = 0; p < processes; ++p)
    for (int k = 0; k < each; ++k) before.push_back(phone("old_" + std::to_string(p * each + k)));
  TrustedDeviceStore(SecretStore(TrustedDeviceStore::account, backend)).save(before);

  std::vector<pid_t> children;
  for (int p = 0; p < processes; ++p) {
    children.push_back(inChild([&, p] {
      const TrustedDeviceStore store(
          SecretStore(TrustedDeviceStore::account, std::make_shared<FileSecretBackend>(root)));
      for (int k = 0; k < each; ++k) {
        store.revoke("old_" + std::to_string(p * each + k));
        store.addOrReplace(phone("new_" + std::to_string(p * each + k)));
      }
    }));
  }
  for (pid_t child : children) {
    int status = -1;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  }
  const auto after = TrustedDeviceStore(SecretStore(TrustedDeviceStore::account, backend)).load();
  ASSERT_EQ(after.size(), std::size_t(2 * processes * each));
  int revoked = 0;
  for (const auto& device : after) revoked += device.revoked;
  EXPECT_EQ(revoked, processes * each);
}

TEST_F(FileSecretBackendTest, KilledWriterLeavesNoTemporaryFile) {
  backend->save(kService, "trusted-devices", toBytes("old"));
  const pid_t writer = inChild([&] {
    FileSecretBackend own(root);
    for (std::uint64_t n = 0;; ++n)
      own.save(kService, "trusted-devices", toBytes(n % 2 ? "a" : "b"));
  });
  while (backend->load(kService, "trusted-devices") == toBytes("old")) std::this_thread::yield();
  ::kill(writer, SIGKILL);
  ASSERT_EQ(::waitpid(writer, nullptr, 0), writer);
  // Also what a writer killed between naming and renaming would leave.
  const fs::path stale =
      root / kService / (".trusted-devices.tmp." + std::to_string(writer) + ".7");
  writeFile(stale, "half");

  backend->save(kService, "identity", toBytes("next save"));
  std::set<std::string> onDisk;
  for (const auto& entry : fs::directory_iterator(root / kService))
    onDisk.insert(entry.path().filename().string());
  EXPECT_EQ(onDisk, (std::set<std::string>{"identity", "trusted-devices"}));
  const auto kept = backend->load(kService, "trusted-devices");
  EXPECT_TRUE(kept == toBytes("a") || kept == toBytes("b"));
}

TEST_F(FileSecretBackendTest, AutomaticChoiceKeepsTheStoreThatHoldsTheIdentity) {
  struct Case {
    const char* name;
    const char* setting;
    const char* remembered;  // before; nullptr: nothing remembered
    bool fileHasIdentity;
    bool serviceAnswers;
    const char* chosen;  // "unavailable": SecretStoreError
    const char* rememberedAfter;
    bool reader = false;  // the trusted-devices tool: uses the choice, keeps none
  };
  const Case cases[] = {
      {"first start without a service", "", nullptr, false, false, "file", "file"},
      {"first start with a service", "auto", nullptr, false, true, "secret-service",
       "secret-service"},
      {"file identity, a service appears", "", nullptr, true, true, "file", "file"},
      {"file remembered, a service appears", "", "file", false, true, "file", "file"},
      {"service remembered and gone", "", "secret-service", false, false, "unavailable",
       "secret-service"},
      {"service remembered, a file identity too", "", "secret-service", true, true,
       "secret-service", "secret-service"},
      {"file forced", "file", "secret-service", false, true, "file", "secret-service"},
      {"service forced and gone", "secret-service", nullptr, false, false, "unavailable", nullptr},
      {"unknown store", "kwallet", nullptr, false, true, "unavailable", nullptr},
      {"a reader on an empty store", "", nullptr, false, false, "file", nullptr, true},
      {"a reader with a service", "", nullptr, false, true, "secret-service", nullptr, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const fs::path remembered = temp / c.name / "secret-store";
    fs::create_directories(remembered.parent_path());
    if (c.remembered) writeFile(remembered, std::string(c.remembered) + "\n");
    auto file = std::make_shared<MemorySecretBackend>();
    auto service = std::make_shared<MemorySecretBackend>();
    if (c.fileHasIdentity) file->save(SecretStore::service, "identity", toBytes("key"));
    SecretBackendCandidates candidates{
        .setting = c.setting,
        .openFile = [&] { return file; },
        .probeSecretService =
            [&](bool) {
              return c.serviceAnswers ? std::nullopt : std::optional<std::string>("no bus");
            },
        .openSecretService = [&] { return service; },
        .remembered = remembered,
        .rememberChoice = !c.reader,
    };
    std::string chosen;
    try {
      const auto choice = chooseSecretBackend(candidates);
      chosen = choice.backend == file ? "file" : choice.backend == service ? "secret-service" : "?";
    } catch (const SecretStoreError& error) {
      EXPECT_EQ(error.kind(), SecretStoreError::Case::unavailable);
      chosen = "unavailable";
    }
    EXPECT_EQ(chosen, c.chosen);
    EXPECT_EQ(
        fs::exists(remembered) ? std::optional(readFile(remembered)) : std::nullopt,
        c.rememberedAfter ? std::optional(std::string(c.rememberedAfter) + "\n") : std::nullopt);
  }
}

// What the phone may reach of a home folder: paths beneath it, folders and
// regular files only, names a file may have; what it writes never replaces.
TEST(HomeFolderTest, KeepsEveryPathBeneathAndNeverReplaces) {
  namespace fs = std::filesystem;
  const fs::path home = fs::temp_directory_path() / ("zul-home-" + std::to_string(::getpid()));
  fs::remove_all(home);
  fs::create_directories(home / "Docs" / "inner");
  std::ofstream(home / "Docs" / "a.txt") << "a";
  std::ofstream(home / ".hidden") << "h";
  fs::create_symlink("/etc", home / "Docs" / "out");
  fs::create_symlink("inner", home / "Docs" / "in");
  ASSERT_EQ(::mkfifo((home / "pipe").c_str(), 0600), 0);
  HomeFolder folder(home);
  const struct {
    std::string path;
    std::string outcome;  // "file", "folder" or the error's case
  } cases[] = {
      {"Docs/a.txt", "file"},         {"Docs", "folder"},
      {"Docs/in", "folder"},          {"Docs/out/passwd", "outside"},
      {"/etc/passwd", "outside"},     {"Docs/../../etc/passwd", "badName"},
      {"Docs/./a.txt", "badName"},    {"Docs/a\x01.txt", "badName"},
      {"pipe", "notAFile"},           {"nothing", "notFound"},
      {"Docs/a.txt/x", "notAFolder"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.path);
    std::string outcome;
    try {
      folder.list(c.path, false);
      outcome = "folder";
    } catch (const FileAccessError& notFolder) {
      outcome = std::string(notFolder.caseName());
      if (notFolder.kind() == FileAccessError::Case::notAFolder) {
        try {
          std::int64_t size = 0;
          ::close(folder.openForReading(c.path, size));
          outcome = "file";
        } catch (const FileAccessError& error) {
          outcome = std::string(error.caseName());
        }
      }
    }
    EXPECT_EQ(outcome, c.outcome);
  }
  std::vector<std::string> names;
  for (const auto& entry : folder.list("", true)) names.push_back(entry.name);
  EXPECT_EQ(names, (std::vector<std::string>{"Docs", ".hidden"}));  // folders first; no pipe
  EXPECT_EQ(folder.list("", false).size(), 1u);
  // Two parts of the same name: the second gets a free one.
  for (const char* tag : {"t1", "t2"}) {
    std::int64_t held = -1;
    const int fd = folder.openPart("Docs", "a.txt", tag, 1, held);
    EXPECT_EQ(held, 0);
    EXPECT_EQ(::write(fd, "b", 1), 1);
    ::close(fd);
  }
  EXPECT_EQ(folder.finishPart("Docs", "a.txt", "t1"), "a (2).txt");
  EXPECT_EQ(folder.finishPart("Docs", "a.txt", "t2"), "a (3).txt");
  std::ifstream original(home / "Docs" / "a.txt");
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(original), {}), "a");
  fs::remove_all(home);
}

// The log: whole lines of JSON, the user's alone, rotated by size with the
// last files kept, read back oldest first, by device and time.
TEST(AuditLogTest, AppendsWholeRecordsRotatesAndFilters) {
  namespace fs = std::filesystem;
  const fs::path dir = fs::temp_directory_path() / ("zul-audit-" + std::to_string(::getpid()));
  fs::remove_all(dir);
  const AuditLog log(dir / "audit.jsonl", 300, 2);
  for (int i = 0; i < 12; ++i) {
    log.record("session.started", {{"device", i % 2 ? "device_b" : "device_a"}, {"n", i}});
  }
  std::ofstream(dir / "audit.jsonl", std::ios::app) << "{half a rec\n";
  struct stat info {};
  ASSERT_EQ(::stat((dir / "audit.jsonl").c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);
  EXPECT_TRUE(fs::exists(dir / "audit.jsonl.2"));
  EXPECT_FALSE(fs::exists(dir / "audit.jsonl.3"));  // older ones go
  const auto all = log.read();
  ASSERT_GE(all.size(), 4u);
  for (std::size_t i = 1; i < all.size(); ++i) {
    EXPECT_EQ(all[i]["n"].get<int>(), all[i - 1]["n"].get<int>() + 1);  // in order, none lost
  }
  EXPECT_EQ(all.back()["n"], 11);
  for (const auto& record : log.read(std::string("device_b")))
    EXPECT_EQ(record["device"], "device_b");
  EXPECT_TRUE(log.read(std::nullopt, std::string("2999-01-01T00:00:00Z")).empty());
  // By event name: a field that only looks like one does not count.
  log.record("shell.opened", {{"note", "\"event\":\"session.x"}});
  EXPECT_EQ(log.read(std::nullopt, std::nullopt, "session.").back()["n"], 11);
  EXPECT_EQ(log.read(std::nullopt, std::nullopt, "shell.").size(), 1u);
  fs::remove_all(dir);
}

}  // namespace
}  // namespace zul
