#pragma once

#include <memory>
#include <string>
#include <vector>

#include "ZulCore/Support/Callback.h"

namespace zul {

// A desktop notification that stays while the agent runs, with buttons
// (org.freedesktop.Notifications: resident, never expiring, replaced in
// place). It is the agent's status-area indicator where the desktop offers
// no tray. Its own session-bus connection and a thread for the service's
// signals; any thread.
class StatusNotification {
 public:
  struct Action {
    std::string key;    // told back through onAction
    std::string label;  // what the button says
  };

  // Without a session bus the notification is never shown (`available()`).
  StatusNotification();
  ~StatusNotification();
  StatusNotification(const StatusNotification&) = delete;
  StatusNotification& operator=(const StatusNotification&) = delete;

  bool available() const;
  // Shows the notification, or replaces the one shown; false when the
  // session has no notification service or it refused.
  bool show(const std::string& summary, const std::string& body,
            const std::vector<Action>& actions);
  // Takes it away (the agent stops).
  void close();

  // A button pressed, by its key; on the notification's own thread.
  Callback<const std::string&> onAction;
  // The person dismissed it: shown again at the next change.
  Callback<> onDismissed;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace zul
