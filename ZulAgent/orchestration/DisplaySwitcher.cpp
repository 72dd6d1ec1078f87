#include "ZulAgent/orchestration/DisplaySwitcher.h"

#include <utility>

namespace zul {

DisplaySwitcher::DisplaySwitcher(Hooks hooks) : hooks_(std::move(hooks)) {}

DisplaySwitcher::~DisplaySwitcher() { shutdown(); }

void DisplaySwitcher::shutdown() { tasks_.shutdown(); }

void DisplaySwitcher::waitUntilIdle() { tasks_.waitUntilIdle(); }

std::int64_t DisplaySwitcher::selectedIndex() const {
  std::lock_guard lock(mutex_);
  return index_;
}

nlohmann::json DisplaySwitcher::monitorList(const std::vector<DisplayDescriptor>& displays,
                                            std::int64_t selected, const std::string& sessionId,
                                            std::int64_t timestampMs,
                                            std::optional<std::uint32_t> primaryDisplayID) {
  nlohmann::json monitors = nlohmann::json::array();
  for (const auto& display : displays) {
    // The phone names monitors by their place and counts in the video's
    // pixels ("scale" 1); the desktop's own name and scale go beside.
    nlohmann::json monitor = {
        {"index", display.index},
        {"name", "Монитор " + std::to_string(display.index + 1)},
        {"rect",
         {{"x", display.originX},
          {"y", display.originY},
          {"w", display.width},
          {"h", display.height}}},
        {"primary", primaryDisplayID == display.displayID},
        {"scale", 1.0},
        {"hdr", false},
        {"displayScale", display.scale},
    };
    if (!display.name.empty()) monitor["connector"] = display.name;
    monitors.push_back(std::move(monitor));
  }
  return {
      {"type", "control.monitor.list"}, {"protoVersion", "1.0"},           {"ts", timestampMs},
      {"sessionId", sessionId},         {"monitors", std::move(monitors)}, {"selected", selected}};
}

void DisplaySwitcher::sendMonitorList() {
  tasks_.post([this] { sendListNow(); });
}

void DisplaySwitcher::sendListNow() {
  try {
    const auto sessionId = hooks_.activeSessionId();
    if (!sessionId) return;
    const auto displays = hooks_.availableDisplays();
    const auto list = monitorList(displays, selectedIndex(), *sessionId, hooks_.nowMilliseconds(),
                                  hooks_.primaryDisplayID());
    hooks_.sendControl(list.dump());
  } catch (const std::exception& error) {
    hooks_.print(std::string("[control] display list not sent: ") + error.what());
  }
}

void DisplaySwitcher::select(std::int64_t requested) {
  {
    std::lock_guard lock(mutex_);
    if (switching_) return;
    switching_ = true;
  }
  if (!tasks_.post([this, requested] { runSwitch(requested); })) {
    std::lock_guard lock(mutex_);
    switching_ = false;
  }
}

void DisplaySwitcher::runSwitch(std::int64_t index) {
  try {
    const DisplayDescriptor display = hooks_.restartCapture(index);
    {
      std::lock_guard lock(mutex_);
      index_ = index;
      lastDisplayID_ = display.displayID;
    }
    hooks_.onSwitched(display);
    sendListNow();
    hooks_.print("selected display " + std::to_string(index) + ": " +
                 std::to_string(display.displayID) + ", " + std::to_string(display.width) + "x" +
                 std::to_string(display.height));
  } catch (const std::exception& error) {
    hooks_.print(std::string("monitor switch failed: ") + error.what());
    try {
      hooks_.onSwitched(hooks_.restartCapture(selectedIndex()));
    } catch (const std::exception& again) {
      hooks_.print(std::string("capture could not be restarted: ") + again.what());
    }
  }
  std::lock_guard lock(mutex_);
  switching_ = false;
}

void DisplaySwitcher::displaysChanged() {
  {
    std::lock_guard lock(mutex_);
    if (changePending_) return;
    changePending_ = true;
  }
  if (!tasks_.post([this] { followDisplays(); })) {
    std::lock_guard lock(mutex_);
    changePending_ = false;
  }
}

void DisplaySwitcher::followDisplays() {
  std::optional<std::uint32_t> watched;
  {
    std::lock_guard lock(mutex_);
    // Changes from here on need another look.
    changePending_ = false;
    watched = lastDisplayID_;
  }
  try {
    if (hooks_.capturedDisplayID) watched = hooks_.capturedDisplayID();
    const std::vector<DisplayDescriptor> displays = hooks_.availableDisplays();
    if (displays.empty()) {
      hooks_.print("displays changed: none left to capture");
      return;
    }
    std::vector<std::int64_t> candidates;
    for (const auto& display : displays) {
      if (watched && display.displayID == *watched) candidates.push_back(display.index);
    }
    if (candidates.empty() || candidates.front() != displays.front().index) {
      candidates.push_back(displays.front().index);
    }
    for (std::size_t i = 0; i < candidates.size(); ++i) {
      try {
        const DisplayDescriptor display = hooks_.restartCapture(candidates[i]);
        {
          std::lock_guard lock(mutex_);
          index_ = display.index;
          lastDisplayID_ = display.displayID;
        }
        hooks_.onSwitched(display);
        sendListNow();
        hooks_.print("displays changed: watching display " + std::to_string(display.index) + ": " +
                     std::to_string(display.displayID) + ", " + std::to_string(display.width) +
                     "x" + std::to_string(display.height));
        return;
      } catch (const std::exception& error) {
        if (i + 1 == candidates.size()) throw;
        hooks_.print(std::string("displays changed: display ") + std::to_string(candidates[i]) +
                     " cannot be captured: " + error.what());
      }
    }
  } catch (const std::exception& error) {
    hooks_.print(std::string("displays changed: capture could not be restarted: ") + error.what());
  }
}

}  // namespace zul
