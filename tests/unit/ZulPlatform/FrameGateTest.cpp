#include <gtest/gtest.h>

#include "ZulPlatform/linux/capture/FrameGate.h"

namespace zul {
namespace {

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

}  // namespace
}  // namespace zul
