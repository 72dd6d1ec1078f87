#include "ZulAgent/orchestration/AgentIndicator.h"

#include <vector>

#include "ZulAgent/windows/AgentWindowTexts.h"

namespace zul {

AgentIndicator::AgentIndicator(std::shared_ptr<RealAgentControl> control, PrintLine print)
    : control_(std::move(control)), print_(std::move(print)) {
  notification_.onAction = [control = control_](const std::string& key) {
    if (key == "disconnect") control->requestSessionEnd();
    if (key == "pause") control->setPaused(true);
    if (key == "resume") control->setPaused(false);
  };
  notification_.onDismissed = [this] { dismissed_ = true; };
}

AgentIndicator::~AgentIndicator() {
  notification_.onAction = nullptr;
  notification_.onDismissed = nullptr;
  notification_.close();
}

void AgentIndicator::show(bool paused, const std::string& phoneName) {
  if (!notification_.available()) return;
  // A session whose notification service is not there (yet) is asked again
  // every 20 ticks, not every tick.
  if (failedTicks_ > 0 && failedTicks_++ % 20 != 0) return;
  const auto state = std::pair(paused, phoneName);
  if (shown_ == state && !dismissed_.exchange(false)) return;
  const auto view = windows::indicatorView(paused, phoneName);
  std::vector<StatusNotification::Action> actions;
  if (view.canDisconnect) actions.push_back({"disconnect", windows::disconnectLabel});
  actions.push_back({paused ? "resume" : "pause", view.pauseLabel});
  if (!notification_.show(view.title, view.detail, actions)) {
    if (failedTicks_ == 0) {
      print_("no status notification: the session bus has no notification service");
    }
    failedTicks_ = 1;
    return;
  }
  failedTicks_ = 0;
  shown_ = state;
}

}  // namespace zul
