#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "ZulAgent/orchestration/DisplaySwitcher.h"
#include "ZulCore/Media/CaptureSource.h"

namespace zul {
namespace {

const std::vector<DisplayDescriptor> twoDisplays = {
    {.index = 0, .displayID = 71, .width = 1920, .height = 1080, .originX = 0, .originY = 0},
    {.index = 1, .displayID = 72, .width = 1280, .height = 1024, .originX = 1920, .originY = -200},
};

// The switcher over two displays (or whatever `displays` holds), recording
// what it sends, restarts and prints.
struct Switcher {
  std::mutex mutex;
  std::vector<DisplayDescriptor> displays = twoDisplays;
  std::optional<std::uint32_t> captured;  // what capture says it runs on
  std::vector<nlohmann::json> sent;
  std::vector<std::int64_t> restarts;
  std::vector<std::uint32_t> targeted;
  std::vector<std::string> printed;
  std::optional<std::string> session = "s-1";
  std::function<void()> duringRestart = [] {};
  DisplaySwitcher switcher{{
      .availableDisplays =
          [this] {
            std::lock_guard lock(mutex);
            return displays;
          },
      .primaryDisplayID = [] { return std::optional<std::uint32_t>(72); },
      .activeSessionId = [this] { return session; },
      .sendControl =
          [this](const std::string& text) {
            std::lock_guard lock(mutex);
            sent.push_back(nlohmann::json::parse(text));
          },
      .restartCapture =
          [this](std::int64_t index) {
            {
              std::lock_guard lock(mutex);
              restarts.push_back(index);
            }
            duringRestart();
            std::lock_guard lock(mutex);
            if (index < 0 || index >= std::int64_t(displays.size())) {
              throw CaptureError::displayUnavailable(index);
            }
            captured = displays[std::size_t(index)].displayID;
            return displays[std::size_t(index)];
          },
      .onSwitched =
          [this](const DisplayDescriptor& display) {
            std::lock_guard lock(mutex);
            targeted.push_back(display.displayID);
          },
      .print =
          [this](std::string_view line) {
            std::lock_guard lock(mutex);
            printed.emplace_back(line);
          },
      .nowMilliseconds = [] { return std::int64_t(1'700'000'000'123); },
      .capturedDisplayID =
          [this] {
            std::lock_guard lock(mutex);
            return captured;
          },
  }};

  void select(nlohmann::json message, std::set<DevicePermission> granted = {
                                          DevicePermission::view, DevicePermission::control}) {
    message["type"] = "control.monitor.select";
    switcher.select(message, PermissionGate{std::move(granted)});
  }
};

TEST(DisplaySwitcher, ListsEveryDisplayForTheActiveSession) {
  Switcher s;
  s.switcher.sendMonitorList();
  s.switcher.waitUntilIdle();
  ASSERT_EQ(s.sent.size(), 1u);
  const auto expected = nlohmann::json::parse(R"({
    "type": "control.monitor.list", "protoVersion": "1.0", "ts": 1700000000123,
    "sessionId": "s-1", "selected": 0,
    "monitors": [
      {"index": 0, "name": "Монитор 1", "rect": {"x": 0, "y": 0, "w": 1920, "h": 1080},
       "primary": false, "scale": 1.0, "hdr": false},
      {"index": 1, "name": "Монитор 2", "rect": {"x": 1920, "y": -200, "w": 1280, "h": 1024},
       "primary": true, "scale": 1.0, "hdr": false}]})");
  EXPECT_EQ(s.sent[0], expected);

  s.session.reset();
  s.switcher.sendMonitorList();
  s.switcher.waitUntilIdle();
  EXPECT_EQ(s.sent.size(), 1u) << "no list without a session";
}

TEST(DisplaySwitcher, SwitchesOrExplainsWhyNot) {
  struct Case {
    const char* name;
    nlohmann::json request;
    std::set<DevicePermission> granted;
    std::vector<std::int64_t> restarts;
    std::int64_t selected;
    std::vector<std::string> printed;
    std::size_t listsSent;
  };
  const std::set<DevicePermission> full{DevicePermission::view, DevicePermission::control};
  const Case cases[] = {
      {"another display", {{"index", 1}}, full, {1}, 1, {"selected display 1: 72, 1280x1024"}, 1},
      {"the same display again",
       {{"index", 0}},
       full,
       {0},
       0,
       {"selected display 0: 71, 1920x1080"},
       1},
      {"no such display",
       {{"index", 5}},
       full,
       {5, 0},
       0,
       {"monitor switch failed: displayUnavailable(index: 5)"},
       0},
      {"an absurd index",
       {{"index", 1e300}},
       full,
       {-1, 0},
       0,
       {"monitor switch failed: displayUnavailable(index: -1)"},
       0},
      {"no index", {{"index", "1"}}, full, {}, 0, {}, 0},
      {"without control",
       {{"index", 1}},
       {DevicePermission::view},
       {},
       0,
       {"monitor switch rejected: denied(control)"},
       0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Switcher s;
    s.select(c.request, c.granted);
    s.switcher.waitUntilIdle();
    EXPECT_EQ(s.restarts, c.restarts);
    EXPECT_EQ(s.switcher.selectedIndex(), c.selected);
    EXPECT_EQ(s.printed, c.printed);
    ASSERT_EQ(s.sent.size(), c.listsSent);
    if (c.listsSent) EXPECT_EQ(s.sent[0]["selected"], c.selected);
  }
}

TEST(DisplaySwitcher, DropsASecondRequestWhileSwitching) {
  Switcher s;
  std::promise<void> entered, release;
  auto released = release.get_future().share();
  s.duringRestart = [&, once = std::make_shared<std::once_flag>()] {
    std::call_once(*once, [&] {
      entered.set_value();
      released.wait();
    });
  };
  s.select({{"index", 1}});
  entered.get_future().wait();
  s.select({{"index", 0}});
  release.set_value();
  s.switcher.waitUntilIdle();
  EXPECT_EQ(s.restarts, (std::vector<std::int64_t>{1}));

  // Once the switch is over, requests are taken again.
  s.select({{"index", 0}});
  s.switcher.waitUntilIdle();
  EXPECT_EQ(s.restarts, (std::vector<std::int64_t>{1, 0}));
}

// Monitors come and go while capture runs: capture stays on its display
// while it exists, else goes to the first, and the phone hears the new list.
TEST(DisplaySwitcher, FollowsMonitorsThatComeAndGo) {
  const DisplayDescriptor added{
      .index = 1, .displayID = 73, .width = 800, .height = 600, .originX = 3200, .originY = 0};
  auto at = [](DisplayDescriptor d, std::int64_t index) {
    d.index = index;
    return d;
  };
  struct Case {
    const char* name;
    std::optional<std::uint32_t> watching;
    std::vector<DisplayDescriptor> now;
    std::vector<std::int64_t> restarts;
    std::int64_t selected;
    std::string printed;
  };
  const Case cases[] = {
      {"one added before the watched one",
       72,
       {twoDisplays[0], added, at(twoDisplays[1], 2)},
       {2},
       2,
       "displays changed: watching display 2: 72, 1280x1024"},
      {"the watched one removed",
       72,
       {twoDisplays[0]},
       {0},
       0,
       "displays changed: watching display 0: 71, 1920x1080"},
      {"the watched one resized",
       71,
       {{.index = 0, .displayID = 71, .width = 1280, .height = 720}},
       {0},
       0,
       "displays changed: watching display 0: 71, 1280x720"},
      {"nothing watched yet", std::nullopt, twoDisplays, {0}, 0, ""},
      {"none left", 72, {}, {}, 0, "displays changed: none left to capture"},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Switcher s;
    s.captured = c.watching;
    s.displays = c.now;
    s.switcher.displaysChanged();
    s.switcher.waitUntilIdle();
    EXPECT_EQ(s.restarts, c.restarts);
    EXPECT_EQ(s.switcher.selectedIndex(), c.selected);
    if (!c.printed.empty()) {
      EXPECT_EQ(s.printed, (std::vector<std::string>{c.printed}));
    }
    if (c.restarts.empty()) continue;
    EXPECT_EQ(s.targeted, (std::vector<std::uint32_t>{c.now[std::size_t(c.selected)].displayID}));
    ASSERT_EQ(s.sent.size(), 1u);
    EXPECT_EQ(s.sent[0]["selected"], c.selected);
    EXPECT_EQ(s.sent[0]["monitors"].size(), c.now.size());
  }
}

TEST(DisplaySwitcher, FollowsABurstOfChangesOnceAndFallsBackToTheFirst) {
  Switcher s;
  std::promise<void> entered, release;
  auto released = release.get_future().share();
  std::atomic<int> calls{0};
  s.duringRestart = [&] {
    const int call = ++calls;
    if (call == 1) {
      entered.set_value();
      released.wait();
    } else if (call == 2) {
      // The watched display cannot be captured any more.
      throw CaptureError::captureFailed("gone");
    }
  };
  s.select({{"index", 1}});
  entered.get_future().wait();
  for (int i = 0; i < 3; ++i) s.switcher.displaysChanged();
  release.set_value();
  s.switcher.waitUntilIdle();
  EXPECT_EQ(s.restarts, (std::vector<std::int64_t>{1, 1, 0}));
  EXPECT_EQ(s.switcher.selectedIndex(), 0);
  EXPECT_EQ(s.printed.back(), "displays changed: watching display 0: 71, 1920x1080");
}

}  // namespace
}  // namespace zul
