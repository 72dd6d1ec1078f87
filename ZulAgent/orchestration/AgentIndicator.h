#pragma once

#include <atomic>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "ZulAgent/orchestration/RealAgent.h"
#include "ZulPlatform/linux/notifications/StatusNotification.h"

namespace zul {

// Where the desktop offers no tray: a lasting desktop notification that says
// Velto runs (or is paused) and which phone is connected, with buttons that
// disconnect the phone and pause or resume the agent through its control.
// Called from the agent's tick only.
class AgentIndicator {
 public:
  AgentIndicator(std::shared_ptr<RealAgentControl> control, PrintLine print);
  ~AgentIndicator();

  // Shows the state when it changed (or the person dismissed the notice).
  void show(bool paused, const std::string& phoneName);

 private:
  std::shared_ptr<RealAgentControl> control_;
  PrintLine print_;
  StatusNotification notification_;
  std::optional<std::pair<bool, std::string>> shown_;
  unsigned failedTicks_ = 0;            // ticks since the service last refused; 0: it did not
  std::atomic<bool> dismissed_{false};  // set on the notification's thread
};

}  // namespace zul
