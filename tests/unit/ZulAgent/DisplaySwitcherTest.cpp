#include <gtest/gtest.h>

#include <atomic>
#include <future>

#include "ZulAgent/orchestration/DisplaySwitcher.h"
#include "ZulCore/Media/CaptureSource.h"

namespace zul {
namespace {

// A 1920x1080 screen and, primary, a second monitor above-right of it.
const std::vector<DisplayDescriptor> twoDisplays = {
    {.index = 0, .displayID = 71, .width = 1920, .height = 1080, .originX = 0, .originY = 0},
    {.index = 1, .displayID = 72, .width = 1280, .height = 1024, .originX = 1920, .originY = -200},
};

// The switcher over `displays`, logging what it restarts, targets, prints
// and sends ("list <selected>/<count>"), in order.
struct Switcher {
  std::mutex mutex;
  std::vector<DisplayDescriptor> displays = twoDisplays;
  std::optional<std::uint32_t> captured;  // what capture says it runs on
  std::vector<nlohmann::json> sent;
  std::vector<std::string> log;
  std::optional<std::string> session = "s-1";
  std::function<void()> duringRestart = [] {};
  void add(std::string line) {
    std::lock_guard lock(mutex);
    log.push_back(std::move(line));
  }
  DisplaySwitcher switcher{{
      .availableDisplays = [this] { return displays; },
      .primaryDisplayID = [] { return std::optional<std::uint32_t>(72); },
      .activeSessionId = [this] { return session; },
      .sendControl =
          [this](const std::string& text) {
            sent.push_back(nlohmann::json::parse(text));
            add("list " + sent.back()["selected"].dump() + "/" +
                std::to_string(sent.back()["monitors"].size()));
          },
      .restartCapture =
          [this](std::int64_t index) {
            add("restart " + std::to_string(index));
            duringRestart();
            if (index < 0 || index >= std::int64_t(displays.size())) {
              throw CaptureError::displayUnavailable(index);
            }
            captured = displays[std::size_t(index)].displayID;
            return displays[std::size_t(index)];
          },
      .onSwitched =
          [this](const DisplayDescriptor& d) { add("on " + std::to_string(d.displayID)); },
      .print = [this](std::string_view line) { add(std::string(line)); },
      .nowMilliseconds = [] { return std::int64_t(1'700'000'000'123); },
      .capturedDisplayID = [this] { return captured; },
  }};

  void select(nlohmann::json index, bool control = true) {
    std::set<DevicePermission> granted{DevicePermission::view};
    if (control) granted.insert(DevicePermission::control);
    switcher.select({{"type", "control.monitor.select"}, {"index", index}},
                    PermissionGate{granted});
  }
  std::string joinedLog() {
    std::lock_guard lock(mutex);
    std::string out;
    for (const auto& line : log) out += (out.empty() ? "" : "|") + line;
    log.clear();
    return out;
  }
};

// A phone's request, or (select "changed") a change of monitors while
// capture watches `watching`.
TEST(DisplaySwitcher, SwitchesFollowsOrExplainsWhyNot) {
  const DisplayDescriptor added{.index = 1, .displayID = 73, .width = 800, .height = 600},
      smaller{.index = 0, .displayID = 71, .width = 1280, .height = 720};
  DisplayDescriptor moved = twoDisplays[1];
  moved.index = 2;
  const std::vector<DisplayDescriptor> two = twoDisplays, grown = {twoDisplays[0], added, moved},
                                       first = {twoDisplays[0]}, resized = {smaller}, none = {};
  const auto no = std::nullopt;
  struct Case {
    const char* name;
    nlohmann::json select;
    bool control;
    std::optional<std::uint32_t> watching;
    const std::vector<DisplayDescriptor>& now;
    std::string log;
    std::int64_t selected;
  };
  const Case cases[] = {
      {"another display", 1, true, no, two,
       "restart 1|on 72|list 1/2|selected display 1: 72, 1280x1024", 1},
      {"the same display again", 0, true, no, two,
       "restart 0|on 71|list 0/2|selected display 0: 71, 1920x1080", 0},
      {"no such display", 5, true, no, two,
       "restart 5|monitor switch failed: displayUnavailable(index: 5)|restart 0|on 71", 0},
      {"an absurd index", 1e300, true, no, two,
       "restart -1|monitor switch failed: displayUnavailable(index: -1)|restart 0|on 71", 0},
      {"no index", "1", true, no, two, "", 0},
      {"without control", 1, false, no, two, "monitor switch rejected: denied(control)", 0},
      {"one added before the watched one", "changed", true, 72, grown,
       "restart 2|on 72|list 2/3|displays changed: watching display 2: 72, 1280x1024", 2},
      {"the watched one removed", "changed", true, 72, first,
       "restart 0|on 71|list 0/1|displays changed: watching display 0: 71, 1920x1080", 0},
      {"the watched one resized", "changed", true, 71, resized,
       "restart 0|on 71|list 0/1|displays changed: watching display 0: 71, 1280x720", 0},
      {"nothing watched yet", "changed", true, no, two,
       "restart 0|on 71|list 0/2|displays changed: watching display 0: 71, 1920x1080", 0},
      {"none left", "changed", true, 72, none, "displays changed: none left to capture", 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    Switcher s;
    s.captured = c.watching;
    s.displays = c.now;
    if (c.select == "changed") {
      s.switcher.displaysChanged();
    } else {
      s.select(c.select, c.control);
    }
    s.switcher.waitUntilIdle();
    EXPECT_EQ(s.joinedLog(), c.log);
    EXPECT_EQ(s.switcher.selectedIndex(), c.selected);
  }
  // The whole list, then none without a session.
  Switcher s;
  s.switcher.sendMonitorList();
  s.switcher.waitUntilIdle();
  s.session.reset();
  s.switcher.sendMonitorList();
  s.switcher.waitUntilIdle();
  ASSERT_EQ(s.sent.size(), 1u);
  EXPECT_EQ(s.sent[0], nlohmann::json::parse(R"({"type": "control.monitor.list", "protoVersion":
      "1.0", "ts": 1700000000123, "sessionId": "s-1", "selected": 0, "monitors": [
      {"index": 0, "name": "Монитор 1", "rect": {"x": 0, "y": 0, "w": 1920, "h": 1080},
       "primary": false, "scale": 1.0, "hdr": false},
      {"index": 1, "name": "Монитор 2", "rect": {"x": 1920, "y": -200, "w": 1280, "h": 1024},
       "primary": true, "scale": 1.0, "hdr": false}]})"));
}

// While a switch runs, another request is dropped and a burst of monitor
// changes is followed once; here the watched display then fails, so capture
// falls back to the first.
TEST(DisplaySwitcher, OneSwitchAtATime) {
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
      throw CaptureError::captureFailed("gone");
    }
  };
  s.select(1);
  entered.get_future().wait();
  s.select(0);
  for (int i = 0; i < 3; ++i) s.switcher.displaysChanged();
  release.set_value();
  s.switcher.waitUntilIdle();
  EXPECT_EQ(s.joinedLog(),
            "restart 1|on 72|list 1/2|selected display 1: 72, 1280x1024|restart 1|displays "
            "changed: display 1 cannot be captured: captureFailed(reason: \"gone\")|restart 0|on "
            "71|list 0/2|displays changed: watching display 0: 71, 1920x1080");
  EXPECT_EQ(s.switcher.selectedIndex(), 0);
  s.select(1);  // taken again once the switch is over
  s.switcher.waitUntilIdle();
  EXPECT_EQ(s.joinedLog(), "restart 1|on 72|list 1/2|selected display 1: 72, 1280x1024");
}

}  // namespace
}  // namespace zul
