#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "ZulCore/Media/DisplayDescriptor.h"
#include "ZulCore/Support/TaskQueue.h"

namespace zul {

// Tells the phone which displays there are and which one it watches
// ("control.monitor.list"), and carries out its "control.monitor.select"
// requests by restarting capture on another display. When monitors come and
// go, capture follows: on the same display while it exists, else on the
// first. Lists, switches and changes run in order on the switcher's own
// thread, never on the caller's. One switch at a time: a request that
// arrives during a switch is dropped.
class DisplaySwitcher {
 public:
  struct Hooks {
    std::function<std::vector<DisplayDescriptor>()> availableDisplays;
    std::function<std::optional<std::uint32_t>()> primaryDisplayID;
    std::function<std::optional<std::string>()> activeSessionId;
    // Writes a message on the "control" channel; may throw.
    std::function<void(const std::string&)> sendControl;
    // Stops capture and starts it on the display with this index; throws when
    // it cannot. Returns the display that capture resolved.
    std::function<DisplayDescriptor(std::int64_t index)> restartCapture;
    // After a successful switch (the pointer follows the captured display).
    std::function<void(const DisplayDescriptor&)> onSwitched;
    std::function<void(std::string_view)> print;
    std::function<std::int64_t()> nowMilliseconds;
    // The display capture runs on (its platform id); when unset, the one the
    // switcher last started.
    std::function<std::optional<std::uint32_t>()> capturedDisplayID;
  };

  explicit DisplaySwitcher(Hooks hooks);
  // Finishes the task in progress; later ones are dropped.
  ~DisplaySwitcher();
  DisplaySwitcher(const DisplaySwitcher&) = delete;
  DisplaySwitcher& operator=(const DisplaySwitcher&) = delete;

  // Queues sending the list to the active session (nothing without one).
  void sendMonitorList();
  // Switches to the display with this index; the switch is queued.
  void select(std::int64_t index);
  // The monitors changed (any thread): capture restarts on the display it
  // watched if that still exists, else on the first; the pointer and scene
  // follow and the phone gets the new list. A burst of changes is followed
  // once.
  void displaysChanged();
  // Ends the thread after the task in progress; nothing is queued later.
  void shutdown();

  std::int64_t selectedIndex() const;
  // Waits until every queued task has run.
  void waitUntilIdle();

  static nlohmann::json monitorList(const std::vector<DisplayDescriptor>& displays,
                                    std::int64_t selected, const std::string& sessionId,
                                    std::int64_t timestampMs,
                                    std::optional<std::uint32_t> primaryDisplayID);

 private:
  void sendListNow();
  void runSwitch(std::int64_t index);
  void followDisplays();

  Hooks hooks_;
  mutable std::mutex mutex_;
  std::int64_t index_ = 0;
  bool switching_ = false;
  bool changePending_ = false;
  std::optional<std::uint32_t> lastDisplayID_;
  TaskQueue tasks_;  // last: its thread ends before the fields above go
};

}  // namespace zul
